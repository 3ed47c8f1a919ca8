#include <windows.h>

#include <system_error>

#include "platform/files/file.h"
#include "platform/process/module_loader.h"

namespace zelta::platform {

ModuleHandle openModule(const std::string& path, std::string* errorText) {
  HMODULE module = LoadLibraryW(nativePath(path).c_str());
  if (module == nullptr) {
    const DWORD error = GetLastError();
    *errorText = path + ": " + std::system_category().message(static_cast<int>(error)) + " (" +
                 std::to_string(error) + ")";
  }
  return module;
}

void* moduleSymbol(ModuleHandle module, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module), name));
}

ModuleHandle openModuleOf(const void* address) {
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, static_cast<const wchar_t*>(address),
                     &module);
  return module;
}

bool closeModule(ModuleHandle module) { return FreeLibrary(static_cast<HMODULE>(module)) != FALSE; }

}  // namespace zelta::platform
