// The folders above a pipe's socket, and the lock by which processes take turns in one of them.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/files/scoped_fd_linux.h"
#include "platform/pipe/pipe_access_linux.h"

namespace zelta::platform {

// Opens a folder by its absolute path. If `access` is given, missing folders are made with its mode
// and group; existing folders are not changed. Needs no memory.
FdResult openFolder(std::string_view path, const PipeAccess* access);

// Gives a file of ours to the group that has access. Returns the mode to set: without the group's
// part if the file could not be given to the group.
mode_t giveToGroup(int descriptor, const char* name, const PipeAccess& access, mode_t mode);

// Locks a folder for this owner; waits for others. The descriptor must stay open meanwhile.
class FolderLock {
 public:
  explicit FolderLock(int folder);
  ~FolderLock();
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

  bool held() const { return held_; }

 private:
  const int folder_;
  bool held_;
};

}  // namespace zelta::platform
