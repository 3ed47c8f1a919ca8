// The registry's export format ("Windows Registry Editor Version 5.00") as text.
//
//   Windows Registry Editor Version 5.00
//
//   ; a comment; one may also follow a line's data
//   [HKEY_LOCAL_MACHINE\SOFTWARE\Vornhalt\ZeltaAgent]      HKLM\... does as well
//   @="the key's default value, with \\ and \" escaped"
//   "number"=dword:0000003c                                 one to eight hexadecimal digits
//   "bytes"=hex:01,02,\                                     goes on in the next line
//     03
//   "of any type"=hex(2):25,00,00,00                        the type's number in hexadecimal
//   "deleted"=-
//   [-HKEY_LOCAL_MACHINE\SOFTWARE\Gone]                     with everything below it
//
// Later lines override earlier ones. Keys of other roots (HKEY_...) are skipped with their values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
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

// The name with the capitals of ASCII and Latin-1 as small letters; other characters stay. Names of
// keys and values compare in this form.
std::u16string foldName(std::u16string_view name);

// The data of a text value, and of a 32-bit number.
std::vector<std::uint8_t> registryText(std::u16string_view text);
std::vector<std::uint8_t> registryDword(std::uint32_t value);

// The contents of HKEY_LOCAL_MACHINE at one moment. A key exists if it was created or lies on the
// way to one that was; "" is HKEY_LOCAL_MACHINE itself and always exists. Paths have backslashes
// between the names; one at the end does not count. Not synchronised.
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

  // The key `id` and everything below it.
  std::pair<Keys::const_iterator, Keys::const_iterator> subtree(const std::u16string& id) const;

  // By folded path with U+0000 between the names, so that everything below a key follows it.
  Keys keys_;
};

// A line that was not understood and its number, from 1; of a continued value the first line's.
using OnSkippedLine = std::function<void(std::size_t number, std::u16string_view line)>;

// Takes any bytes: UTF-16 with a byte order mark, else UTF-8 with or without one. A line that is
// not understood (such as one with a zero character) is reported and skipped; the rest counts. The
// values of a key that is not understood are skipped without a report. Time and memory are in
// proportion to the size. Throws std::bad_alloc, and what `onSkipped` throws. Any thread.
RegistryContent parseRegistryFile(std::string_view bytes, const OnSkippedLine& onSkipped);

}  // namespace zelta::platform
