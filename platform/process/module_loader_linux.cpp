#include <dlfcn.h>
#include <link.h>

#include "platform/process/module_loader.h"

namespace zelta::platform {

ModuleHandle openModule(const std::string& path, std::string* errorText) {
  ModuleHandle module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    const char* text = dlerror();  // NOLINT(concurrency-mt-unsafe): each thread has its own
    *errorText = text == nullptr ? "unknown reason" : text;
  }
  return module;
}

void* moduleSymbol(ModuleHandle module, const char* name) { return dlsym(module, name); }

ModuleHandle openModuleOf(const void* address) {
  Dl_info info{};
  void* found = nullptr;
  if (dladdr1(address, &info, &found, RTLD_DL_LINKMAP) == 0) return nullptr;
  const char* name = static_cast<const link_map*>(found)->l_name;
  if (*name == '\0') return nullptr;  // the program itself
  return dlopen(name, RTLD_NOW | RTLD_LOCAL | RTLD_NOLOAD);
}

std::string pathOfModule(const void* address) {
  Dl_info info{};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return {};
  return info.dli_fname;
}

bool closeModule(ModuleHandle module) { return dlclose(module) == 0; }

}  // namespace zelta::platform
