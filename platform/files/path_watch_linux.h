// Notices when what is found at a path may have changed, however that came about.
//
// The path need not exist, nor the folders that lead to it. Noticed are: a writer that closes the
// file (also one that opened it by another name), another file renamed or linked in its place, its
// removal and creation, new access rights, and the same for every folder and symbolic link on the
// way. A writer that keeps the file open is noticed as well, but when it is done is for the caller
// to say. What is written through a memory mapping goes unnoticed until the file is closed.
//
// Not sd-event: callers wait on the descriptor in loops that they have already.
//
// Armed from construction on: a change after that is news. One thread at a time.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "platform/files/scoped_fd_linux.h"

namespace zelta::platform {

class PathWatch {
 public:
  // The paths are absolute. Throws std::system_error if the system has no inotify instance left.
  explicit PathWatch(std::vector<std::string> paths);

  // Readable when there may be news.
  int fd() const { return inotify_.get(); }
  // What first could not be watched and why: news may be missed. Empty if everything is watched.
  const std::string& problem() const { return problem_; }
  // Takes the news. If any concern one of the paths, they are followed anew and the result is true:
  // whatever changes from then on is news again. Does not block.
  bool takeNews();
  // Whether the last thing to be taken was a writer's, which has not closed the file since. That is
  // no news yet. If nothing more comes for a while, the caller takes the writer to be done.
  bool isBeingWritten() const { return isBeingWritten_; }
  void settle() { isBeingWritten_ = false; }

 private:
  // For each watch descriptor the names that matter in that folder; "" is the file itself.
  using Awaited = std::multimap<int, std::string>;

  // Watches all that is on the paths.
  void arm();
  // `links` is how many more symbolic links may be followed.
  void follow(const std::filesystem::path& path, int* links, Awaited* awaited);
  // Whether there is such a path.
  bool watch(const std::string& path, std::uint32_t mask, const std::string& name,
             Awaited* awaited);
  bool concerns(int descriptor, const std::string& name) const;

  std::vector<std::string> paths_;
  ScopedFd inotify_;
  Awaited awaited_;
  std::string problem_;
  bool isBeingWritten_ = false;
};

}  // namespace zelta::platform
