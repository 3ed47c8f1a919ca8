// What HKEY_LOCAL_MACHINE holds at one moment: keys with their values, without input or output.
//
// Names compare without case, see foldName(). A key exists if it was created or lies on the way to
// one that was; "" is HKEY_LOCAL_MACHINE itself and always exists. Not synchronised.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
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

// The name with the capitals of ASCII and Latin-1 as small letters; other characters stay.
std::u16string foldName(std::u16string_view name);

// A text value's data.
std::vector<std::uint8_t> registryText(std::u16string_view text);
// A 32-bit value's data.
std::vector<std::uint8_t> registryDword(std::uint32_t value);

// Paths are below HKEY_LOCAL_MACHINE, with backslashes between the names; one at the end does not
// count.
class RegistryContent {
 public:
  // Creates the key unless it exists. Its values stay valid until the key is deleted.
  RegistryValues& createKey(std::u16string_view path);
  // Deletes the key with everything below it; its parent stays. A missing key is no error.
  void deleteKey(std::u16string_view path);

  bool hasKey(std::u16string_view path) const;
  // Null if there is no such key or value.
  const RegistryValue* find(std::u16string_view path, std::u16string_view name) const;

  // Whether the key and everything below it are the same in both, or absent from both.
  bool sameSubtree(const RegistryContent& other, std::u16string_view path) const;

 private:
  using Keys = std::map<std::u16string, RegistryValues>;
  using Range = std::pair<Keys::const_iterator, Keys::const_iterator>;

  // The key `id` and all that is below it.
  Range subtree(const std::u16string& id) const;

  // By folded path with U+0000 between the names, so that all that is below a key follows it.
  Keys keys_;
};

}  // namespace zelta::platform
