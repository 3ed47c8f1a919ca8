// The reader's states and protocols, with the system's own numbers.
#pragma once

#include <cstdint>

namespace zelta {

// Reader states.
inline constexpr std::uint32_t SCARD_UNKNOWN = 0;
inline constexpr std::uint32_t SCARD_ABSENT = 1;
inline constexpr std::uint32_t SCARD_PRESENT = 2;
inline constexpr std::uint32_t SCARD_SWALLOWED = 3;
inline constexpr std::uint32_t SCARD_POWERED = 4;
inline constexpr std::uint32_t SCARD_NEGOTIABLE = 5;
inline constexpr std::uint32_t SCARD_SPECIFIC = 6;

// Protocol masks.
inline constexpr std::uint32_t SCARD_PROTOCOL_T0 = 1;
inline constexpr std::uint32_t SCARD_PROTOCOL_T1 = 2;
inline constexpr std::uint32_t SCARD_PROTOCOL_DEFAULT = 0x80000000;

}  // namespace zelta
