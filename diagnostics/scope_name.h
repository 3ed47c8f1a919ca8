// The copy of a scope's name that the scoped objects of the diagnostics keep.
#pragma once

#include <new>
#include <string>

namespace zelta {

// Empty where there is no memory: a trace without a name is better than a lock that is not taken.
inline std::string copyScopeName(const char* name) noexcept {
  try {
    return name;
  } catch (const std::bad_alloc&) {
    return std::string();
  }
}

}  // namespace zelta
