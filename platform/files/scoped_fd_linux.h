// The owner of one file descriptor (process/scoped_handle.h).
#pragma once

#include <unistd.h>

#include "platform/process/scoped_handle.h"

namespace zelta::platform {

inline constexpr int kNoFd = -1;

struct FdTraits {
  using Value = int;
  using Storage = int;
  static Value none() { return kNoFd; }
  static bool isValid(Value fd) { return fd != kNoFd; }
  static void close(Value fd) { ::close(fd); }
};
using ScopedFd = ScopedHandle<FdTraits>;

}  // namespace zelta::platform
