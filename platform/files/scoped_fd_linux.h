// The owner of one file descriptor (process/scoped_handle.h).
#pragma once

#include <unistd.h>

#include <cstdint>

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

// The result of opening a descriptor.
struct FdResult {
  std::uint32_t error = 0;  // a system error number, as Windows has it; 0: none
  ScopedFd fd;
};

}  // namespace zelta::platform
