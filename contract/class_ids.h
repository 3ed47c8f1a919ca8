// The identifiers of the module's class and of its devices' interface.
#pragma once

#include <cstdint>

namespace zelta {

// 16 bytes; becomes the framework's or the system's own type when one is asked for.
struct ClassId {
  std::uint32_t data1;
  std::uint16_t data2;
  std::uint16_t data3;
  std::uint8_t data4[8];

  template <typename Guid, typename = decltype(Guid::data4)>
  constexpr operator Guid() const {  // NOLINT(google-explicit-constructor)
    return {data1,
            data2,
            data3,
            {data4[0], data4[1], data4[2], data4[3], data4[4], data4[5], data4[6], data4[7]}};
  }
};

// The driver object's class, by which the host asks for it.
inline constexpr ClassId kDriverClassId = {
    0xA44A2DF4, 0xDCA4, 0x4767, {0x8E, 0xC4, 0x86, 0xFE, 0x61, 0x1C, 0x2E, 0xA7}};

// The device interface class of smart card readers.
inline constexpr ClassId kSmartCardReaderInterface = {
    0x50DD5230, 0xBA8A, 0x11D1, {0xBF, 0x5D, 0x00, 0x00, 0xF8, 0x05, 0xF5, 0x30}};

}  // namespace zelta
