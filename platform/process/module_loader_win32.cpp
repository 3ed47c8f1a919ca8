#include <windows.h>

#include <system_error>

#include "platform/files/file.h"
#include "platform/process/module_loader.h"

namespace zelta::platform {

namespace {

std::string lastErrorText(const std::string& what) {
  const DWORD error = GetLastError();
  return what + ": " + std::system_category().message(static_cast<int>(error)) + " (" +
         std::to_string(error) + ")";
}

}  // namespace

ModuleHandle openModule(const std::string& path, std::string* errorText) {
  HMODULE module = LoadLibraryW(nativePath(path).c_str());
  if (module == nullptr) *errorText = lastErrorText(path);
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

bool closeModule(ModuleHandle module, std::string* errorText) {
  if (FreeLibrary(static_cast<HMODULE>(module)) != FALSE) return true;
  *errorText = lastErrorText("FreeLibrary");
  return false;
}

}  // namespace zelta::platform
