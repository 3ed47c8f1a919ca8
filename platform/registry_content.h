// What HKEY_LOCAL_MACHINE holds at one moment: keys with their values, without input or output.
//
// Names compare without case (`foldName`). A key exists where it was created or lies on the way to
// one that was; "" is HKEY_LOCAL_MACHINE itself and always exists. Not synchronised: one that is
// shared is shared as constant.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace zelta::platform {

struct RegistryValue {
  std::uint32_t type = 0;
  std::vector<std::uint8_t> data;  // as stored: text is UTF-16LE with its terminating zero unit

  friend bool operator==(const RegistryValue& a, const RegistryValue& b) {
    return a.type == b.type && a.data == b.data;
  }
};

using RegistryValues = std::map<std::u16string, RegistryValue>;  // by folded name, "" is `@`

// Simple, one unit to one unit, the same on every system: ASCII, Latin-1, Latin Extended-A, Greek
// and Cyrillic capitals become small; everything else stays.
std::u16string foldName(std::u16string_view name);

// A text value's data.
std::vector<std::uint8_t> registryText(std::u16string_view text);
// A 32-bit value's data.
std::vector<std::uint8_t> registryDword(std::uint32_t value);

// Paths are below HKEY_LOCAL_MACHINE, with backslashes between the names; one at the end does not
// count.
class RegistryContent {
 public:
  // The values of the key, which is created where it is not there. Valid until the key is deleted.
  RegistryValues& createKey(std::u16string_view path);
  // With everything below it; its parent stays. A key that is not there is no error.
  void deleteKey(std::u16string_view path);

  bool hasKey(std::u16string_view path) const;
  // Null where the key or the value is not there.
  const RegistryValue* find(std::u16string_view path, std::u16string_view name) const;

  // True where the key and everything below it are the same in both, or absent from both.
  bool sameSubtree(const RegistryContent& other, std::u16string_view path) const;

 private:
  using Keys = std::map<std::u16string, RegistryValues>;

  struct Range;

  // By folded path with U+0000 between the names, so that all that is below a key follows it.
  Keys keys_;
};

}  // namespace zelta::platform
