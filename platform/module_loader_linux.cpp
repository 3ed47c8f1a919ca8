#include <dlfcn.h>

#include "platform/module_loader.h"

namespace zelta::platform {

namespace {

void takeError(std::string* errorText) {
  const char* text = dlerror();
  *errorText = text == nullptr ? "unknown reason" : text;
}

}  // namespace

ModuleHandle openModule(const std::string& path, std::string* errorText) {
  ModuleHandle module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) takeError(errorText);
  return module;
}

void* moduleSymbol(ModuleHandle module, const char* name) { return dlsym(module, name); }

bool closeModule(ModuleHandle module, std::string* errorText) {
  if (dlclose(module) == 0) return true;
  takeError(errorText);
  return false;
}

}  // namespace zelta::platform
