// Tells when a file may have changed, however that came about.
//
// The file need not exist, nor the folders that lead to it. Noticed are: a writer that closes the
// file (also one that came by another name of it), another file renamed or linked in its place,
// its removal and creation, new access rights, and the same for every folder and symbolic link on
// the way. What a writer has written so far goes unnoticed until it closes the file, and so does
// what is written through a memory mapping.
//
// One thread waits (no polling); `create` starts it and the destructor joins it.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "platform/scoped_fd_linux.h"

namespace zelta::platform {

class FileWatcher {
 public:
  using OnChange = std::function<void()>;
  using OnProblem = std::function<void(const std::string&)>;

  // `onChange` is called on the watcher's thread, possibly more often than the file changes; every
  // change after the return leads to a call. `onProblem` gets, on either thread, what cannot be
  // watched. Null where the system has no descriptor left; throws std::system_error where it has
  // no thread left.
  static std::unique_ptr<FileWatcher> create(const std::string& path, OnChange onChange,
                                             OnProblem onProblem);
  // As `create`, with its descriptors.
  FileWatcher(const std::string& path, OnChange onChange, OnProblem onProblem, ScopedFd inotify,
              ScopedFd stop);
  // Must not be called by `onChange`.
  ~FileWatcher();
  FileWatcher(const FileWatcher&) = delete;
  FileWatcher& operator=(const FileWatcher&) = delete;

 private:
  // For each watch descriptor the names that matter in that folder; "" is the file itself.
  using Watches = std::map<int, std::set<std::string>>;

  void run();
  // Follows the path and watches all that is on it, from the root on: a change after a part was
  // looked at is an event, one before was seen.
  void watchPath();
  // Whether the next part can be followed.
  bool watch(const std::string& path, std::uint32_t mask, const std::string& name,
             Watches* watches);
  // Takes all events that are there: whether one of them may concern the file.
  bool takeEvents();
  bool concerns(const void* event) const;

  const std::string path_;
  const OnChange onChange_;
  const OnProblem onProblem_;
  ScopedFd inotify_;
  ScopedFd stop_;
  Watches watches_;  // the constructor's, then the thread's
  std::thread thread_;
};

}  // namespace zelta::platform
