// 32-bit numbers as they lie in a request's buffers: four bytes, least significant first.
#pragma once

#include <array>
#include <cstdint>

namespace zelta {

// Reads four bytes.
inline std::uint32_t loadLittleEndian(const std::uint8_t* bytes) {
  return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
         static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

inline std::array<std::uint8_t, 4> toLittleEndian(std::uint32_t value) {
  return {static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
          static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)};
}

}  // namespace zelta
