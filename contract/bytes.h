// Byte strings, the numbers in them and their hexadecimal text. Numbers travel as four bytes, least
// significant first, in requests' buffers as on the agent's pipes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelta {

using Bytes = std::vector<std::uint8_t>;

inline constexpr std::size_t kNumberSize = 4;  // bytes

// `bytes` has at least `kNumberSize` bytes.
constexpr std::uint32_t loadLittleEndian(const std::uint8_t* bytes) {
  return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
         static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

inline void storeLittleEndian(std::uint8_t* bytes, std::uint32_t value) {
  for (std::size_t i = 0; i < kNumberSize; ++i) {
    bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
}

inline std::array<std::uint8_t, kNumberSize> toLittleEndian(std::uint32_t value) {
  std::array<std::uint8_t, kNumberSize> bytes{};
  storeLittleEndian(bytes.data(), value);
  return bytes;
}

inline Bytes numberBytes(std::uint32_t value) {
  Bytes bytes(kNumberSize);
  storeLittleEndian(bytes.data(), value);
  return bytes;
}

// Uppercase, two digits a byte, no separators.
std::string toHex(const std::uint8_t* bytes, std::size_t size);
inline std::string toHex(const Bytes& bytes) { return toHex(bytes.data(), bytes.size()); }

// The value of one hexadecimal digit of either case, or -1.
int hexDigit(char digit);

// Takes either case, and spaces and tabs between bytes. Empty text gives an empty byte string, any
// other text that is not hexadecimal gives none.
std::optional<Bytes> parseHex(const std::string& text);

}  // namespace zelta
