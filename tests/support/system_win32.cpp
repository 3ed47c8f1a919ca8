#include "tests/support/system.h"

#include <windows.h>

namespace zelta::test {

bool underWine() {
  return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

}  // namespace zelta::test
