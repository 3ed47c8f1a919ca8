// A number that stands for a text: the same for the same text, in all likelihood another for any
// other. Not for keys that an attacker chooses.
#pragma once

#include <cstdint>

namespace zelta::platform {

// FNV-1a over the units of a string or view.
template <typename String>
constexpr std::uint64_t identityHash(const String& text) {
  std::uint64_t hash = 14695981039346656037U;
  for (const auto unit : text) hash = (hash ^ static_cast<std::uint64_t>(unit)) * 1099511628211U;
  return hash;
}

}  // namespace zelta::platform
