// The owners of Windows' handles (process/scoped_handle.h).
#pragma once

#include <windows.h>
// windows.h comes first
#include <winsvc.h>

#include "platform/process/scoped_handle.h"

namespace zelta::platform {

// Windows' calls return null or INVALID_HANDLE_VALUE for none.
template <typename Handle>
struct WindowsHandleTraits {
  using Value = Handle;
  using Storage = Handle;
  static Value none() { return nullptr; }
  static bool isValid(Value handle) { return handle != nullptr && handle != INVALID_HANDLE_VALUE; }
};

struct KernelHandleTraits : WindowsHandleTraits<HANDLE> {
  static void close(Value handle) { CloseHandle(handle); }
};
using ScopedKernelHandle = ScopedHandle<KernelHandleTraits>;

struct FileSearchTraits : WindowsHandleTraits<HANDLE> {
  static void close(Value search) { FindClose(search); }
};
using ScopedFileSearch = ScopedHandle<FileSearchTraits>;

struct LocalMemoryTraits : WindowsHandleTraits<HLOCAL> {
  static void close(Value memory) { LocalFree(memory); }
};
using ScopedLocalMemory = ScopedHandle<LocalMemoryTraits>;

struct RegistryKeyTraits : WindowsHandleTraits<HKEY> {
  static void close(Value key) { RegCloseKey(key); }
};
using ScopedRegistryKey = ScopedHandle<RegistryKeyTraits>;

struct ServiceTraits : WindowsHandleTraits<SC_HANDLE> {
  static void close(Value service) { CloseServiceHandle(service); }
};
using ScopedService = ScopedHandle<ServiceTraits>;

}  // namespace zelta::platform
