// Notices when something about a path may have changed: it appears, goes, is replaced or changes
// its rights, or a folder on the way to it does.
//
// Armed at construction, so that what happens between that and waiting is not lost. One thread.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/scoped_fd_linux.h"

namespace zelta::agent {

class PathWatch {
 public:
  // Absolute paths; none of their folders need exist. Throws std::system_error where the system
  // has no watches left.
  explicit PathWatch(const std::vector<std::string>& paths);

  // Readable when there may be news.
  int fd() const { return inotify_.get(); }
  // False where a folder could not be watched (for lack of rights): news may be missed.
  bool complete() const { return complete_; }
  // Takes the news; whether any concerned one of the paths. Does not block.
  bool takeNews();

 private:
  void add(const std::string& path);

  platform::ScopedFd inotify_;
  // The names awaited in each watched folder.
  std::multimap<int, std::string> awaited_;
  bool complete_ = true;
};

}  // namespace zelta::agent
