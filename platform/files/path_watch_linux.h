// Notices when the file at a path may have changed, for whatever reason.
//
// Neither the path nor the folders that lead to it need exist. It notices a writer that closes the
// file (even one that opened it by another name), another file renamed or linked into its place,
// its removal and creation, new access rights, and the same for every folder and symbolic link on
// the way. It also notices a writer that keeps the file open, but the caller decides when that
// writer is done. Writes through a memory mapping go unnoticed until the file is closed.
//
// Not sd-event: callers wait on the descriptor in loops that they have already.
//
// It notices every change after its construction. One thread at a time.
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

  // Readable when something may have changed.
  int fd() const { return inotify_.get(); }
  // The first thing that could not be watched, and why; changes of it may be missed. Empty if
  // everything is watched.
  const std::string& problem() const { return problem_; }
  // Reads the pending notifications. If any concerns one of the paths, follows the paths anew and
  // returns true; later changes are noticed again. Does not block.
  bool takeNews();
  // Whether the last notification came from a writer that has not closed the file since. That does
  // not count as a change yet. If nothing more comes for a while, the caller takes the writer to be
  // done.
  bool isBeingWritten() const { return isBeingWritten_; }
  void assumeWritten() { isBeingWritten_ = false; }

 private:
  // For each watch descriptor the names that matter in that folder; "" is the file itself.
  using Awaited = std::multimap<int, std::string>;

  // Watches everything on the paths.
  void arm();
  // `links` is the number of symbolic links that may still be followed.
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
