// What the handler says to the reader driver: I/O controls, statuses, attributes, and numbers as
// they travel (32 bits, little-endian). The names differ from the driver's own because pcscd's
// headers define macros of those names, some with other values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "framework/com.h"

namespace zelta::pcsc {

using Bytes = std::vector<std::uint8_t>;

inline constexpr std::uint32_t kIoctlPower = 0x00310004;
inline constexpr std::uint32_t kIoctlGetAttribute = 0x00310008;
inline constexpr std::uint32_t kIoctlSetAttribute = 0x0031000C;
inline constexpr std::uint32_t kIoctlTransmit = 0x00310014;
inline constexpr std::uint32_t kIoctlIsPresent = 0x00310028;
inline constexpr std::uint32_t kIoctlIsAbsent = 0x0031002C;
inline constexpr std::uint32_t kIoctlSetProtocol = 0x00310030;

// Operations of kIoctlPower.
inline constexpr std::uint32_t kPowerDown = 0;
inline constexpr std::uint32_t kColdReset = 1;
inline constexpr std::uint32_t kWarmReset = 2;

// Protocol masks of kIoctlSetProtocol, and the transmit header's protocol once one is chosen.
inline constexpr std::uint32_t kProtocolT0 = 1;
inline constexpr std::uint32_t kProtocolT1 = 2;

// Statuses that the handler tells apart.
inline constexpr framework::HRESULT kNoMedia = framework::hresult(0xC0000178);
inline constexpr framework::HRESULT kInvalidDeviceState = framework::hresult(0xC0000184);
inline constexpr framework::HRESULT kNotSupported = framework::hresult(0x80070032);

// Attributes that the handler names; every other tag goes to the driver as it is.
inline constexpr std::uint32_t kAttributeVendorName = 0x00010100;
inline constexpr std::uint32_t kAttributeIfdType = 0x00010101;
inline constexpr std::uint32_t kAttributePipeName = 0x0007A00A;
inline constexpr std::uint32_t kAttributeEventPipeName = 0x0007A00B;
// How the reader's server thread is: 0 while it serves, 997 while it still makes its pipes, or the
// code that it has ended with.
inline constexpr std::uint32_t kAttributeServerResult = 0x0007A010;
inline constexpr std::uint32_t kAttributeCurrentProtocol = 0x00080201;
inline constexpr std::uint32_t kAttributeAtr = 0x00090303;

inline constexpr std::size_t kNumberSize = 4;          // bytes
inline constexpr std::size_t kTransmitHeaderSize = 8;  // bytes: protocol, header size

// `bytes` must hold four bytes from `offset` on.
template <typename ByteSequence>
void putNumber(ByteSequence& bytes, std::size_t offset, std::uint32_t value) {
  for (std::size_t i = 0; i < kNumberSize; ++i) {
    bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
}

inline Bytes numberBytes(std::uint32_t value) {
  Bytes bytes(kNumberSize);
  putNumber(bytes, 0, value);
  return bytes;
}

template <typename ByteSequence>
std::uint32_t numberAt(const ByteSequence& bytes, std::size_t offset) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < kNumberSize; ++i) {
    value |= static_cast<std::uint32_t>(bytes[offset + i]) << (8 * i);
  }
  return value;
}

}  // namespace zelta::pcsc
