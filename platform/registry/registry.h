// Reads and watches the machine's registry (HKEY_LOCAL_MACHINE).
//
// Every call returns a system error number: 0 for success, ERROR_FILE_NOT_FOUND (2) if there is no
// such key or value. Any thread may call. Text data are UTF-16LE with a terminating zero unit, as
// stored.
#pragma once

#include <cstdint>
#include <string>

#include "platform/sync/event.h"

namespace zelta::platform {

using RegistryKey = void*;  // null is none

// Value types, the registry's own numbers.
inline constexpr std::uint32_t kRegSz = 1;
inline constexpr std::uint32_t kRegExpandSz = 2;
inline constexpr std::uint32_t kRegBinary = 3;
inline constexpr std::uint32_t kRegDword = 4;
inline constexpr std::uint32_t kRegQword = 11;

namespace error {

inline constexpr std::uint32_t kInvalidData = 13;
inline constexpr std::uint32_t kUnsupportedType = 1630;

}  // namespace error

class RegistryApi {
 public:
  virtual ~RegistryApi() = default;

  // One 32-bit value of a key below HKEY_LOCAL_MACHINE; a value of another type is refused with
  // a non-zero result. On Windows a stored value of fewer bytes fills as many bytes of `out`.
  virtual std::uint32_t getDword(const std::u16string& key, const std::u16string& value,
                                 std::uint32_t* out) = 0;
  // Opens a key for reading; closed by `closeKey`.
  virtual std::uint32_t openKey(const std::u16string& key, RegistryKey* out) = 0;
  // Copies a value. `type` and `size` (bytes, the buffer's on entry) are set on success. If
  // the buffer is too small, the result is ERROR_MORE_DATA (234) and `size` is the size needed.
  virtual std::uint32_t queryValue(RegistryKey key, const std::u16string& value,
                                   std::uint32_t* type, void* data, std::uint32_t* size) = 0;
  // Signals `event` once when a value or subkey at or below the key next changes. A change
  // between two such calls on the same key is not lost: the second signals at once. On Windows a
  // change between opening the key and the first call is lost.
  virtual std::uint32_t notifyChange(RegistryKey key, EventHandle event) = 0;
  // Ends a pending notification; Windows signals its event.
  virtual void closeKey(RegistryKey key) = 0;
};

// The operating system's registry. On Linux one text file in the export format, $ZELTA_REGISTRY.
RegistryApi& systemRegistry();

}  // namespace zelta::platform
