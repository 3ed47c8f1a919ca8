// The smart card reader I/O controls, with the system's own numbers (device type 0x31, buffered
// method, any access), and the layout of what they carry.
#pragma once

#include <cstdint>

namespace zelta {

inline constexpr std::uint32_t IOCTL_SMARTCARD_POWER = 0x00310004;
inline constexpr std::uint32_t IOCTL_SMARTCARD_GET_ATTRIBUTE = 0x00310008;
inline constexpr std::uint32_t IOCTL_SMARTCARD_SET_ATTRIBUTE = 0x0031000C;
inline constexpr std::uint32_t IOCTL_SMARTCARD_CONFISCATE = 0x00310010;
inline constexpr std::uint32_t IOCTL_SMARTCARD_TRANSMIT = 0x00310014;
inline constexpr std::uint32_t IOCTL_SMARTCARD_EJECT = 0x00310018;
inline constexpr std::uint32_t IOCTL_SMARTCARD_SWALLOW = 0x0031001C;
inline constexpr std::uint32_t IOCTL_SMARTCARD_IS_PRESENT = 0x00310028;
inline constexpr std::uint32_t IOCTL_SMARTCARD_IS_ABSENT = 0x0031002C;
inline constexpr std::uint32_t IOCTL_SMARTCARD_SET_PROTOCOL = 0x00310030;
inline constexpr std::uint32_t IOCTL_SMARTCARD_GET_STATE = 0x00310038;
inline constexpr std::uint32_t IOCTL_SMARTCARD_GET_LAST_ERROR = 0x0031003C;
inline constexpr std::uint32_t IOCTL_SMARTCARD_GET_PERF_CNTR = 0x00310040;

// Power operations.
inline constexpr std::int32_t SCARD_POWER_DOWN = 0;
inline constexpr std::int32_t SCARD_COLD_RESET = 1;
inline constexpr std::int32_t SCARD_WARM_RESET = 2;

// The header of a transmit, in and out: protocol and header length, 32 bits each.
inline constexpr std::uint32_t kTransmitHeaderSize = 8;  // bytes

}  // namespace zelta
