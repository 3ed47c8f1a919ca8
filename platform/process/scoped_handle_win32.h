// The owner of one kernel object's handle (process/scoped_handle.h).
#pragma once

#include <windows.h>

#include "platform/process/scoped_handle.h"

namespace zelta::platform {

// Windows' calls return null or INVALID_HANDLE_VALUE for none.
struct KernelHandleTraits {
  using Value = HANDLE;
  using Storage = HANDLE;
  static Value none() { return nullptr; }
  static bool isValid(Value handle) { return handle != nullptr && handle != INVALID_HANDLE_VALUE; }
  static void close(Value handle) { CloseHandle(handle); }
};
using ScopedKernelHandle = ScopedHandle<KernelHandleTraits>;

}  // namespace zelta::platform
