// Loads a shared module (a dynamic library) into the process by its path.
//
// Any thread may call; `closeModule` must not overlap a use of the module's symbols, nor run while
// its code does.
#pragma once

#include <string>

#include "platform/process/scoped_handle.h"

namespace zelta::platform {

using ModuleHandle = void*;  // null is none

// Loads the module with everything it needs and runs its initialisers. Its symbols are not offered
// to other modules. `path` is UTF-8. Null on failure, with the reason in the system's own
// words in `errorText`.
ModuleHandle openModule(const std::string& path, std::string* errorText);

// The address of an exported function or datum; null if the module exports none of that name.
void* moduleSymbol(ModuleHandle module, const char* name);

// Opens once more the module whose code or data contains `address`. The module stays mapped until
// that handle is closed, whatever happens to its other handles. Null on failure, and for the
// program itself, which always stays mapped.
ModuleHandle openModuleOf(const void* address);

// The path of the file that `address` was loaded from; empty if the system does not say. Linux
// only.
std::string pathOfModule(const void* address);

// Closes the handle. The module is unmapped, after its own tear-down, unless it is open elsewhere
// in the process. False on failure.
[[nodiscard]] bool closeModule(ModuleHandle module);

struct ModuleTraits {
  using Value = ModuleHandle;
  using Storage = ModuleHandle;
  static Value none() { return nullptr; }
  static bool isValid(Value module) { return module != nullptr; }
  static void close(Value module) { (void)closeModule(module); }
};
using ScopedModule = ScopedHandle<ModuleTraits>;

}  // namespace zelta::platform
