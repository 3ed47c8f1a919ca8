// Names for the cases of a table, made of their data.
#pragma once

#include <cctype>
#include <cstdio>
#include <string>

namespace zelta::test {

// The text's letters and digits, with an underscore for what is between them. A byte of no ASCII
// character is its number.
inline std::string caseName(const std::string& text) {
  std::string name;
  bool apart = false;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool other = byte >= 0x80;
    if (!other && std::isalnum(byte) == 0) {
      apart = !name.empty();
      continue;
    }
    if (apart) name += '_';
    apart = false;
    char number[4];
    (void)std::snprintf(number, sizeof number, "x%02X", byte);
    name += other ? std::string(number) : std::string(1, c);
  }
  return name.empty() ? "Empty" : name;
}

}  // namespace zelta::test
