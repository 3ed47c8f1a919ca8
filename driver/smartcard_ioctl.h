// The smart card reader I/O controls, power operations, states, protocols and attributes, with
// the system's own numbers (device type 0x31, buffered method, any access; the PC/SC standard for
// the attributes).
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

// Attributes.
inline constexpr std::uint32_t SCARD_ATTR_VENDOR_NAME = 0x00010100;
inline constexpr std::uint32_t SCARD_ATTR_VENDOR_IFD_TYPE = 0x00010101;
inline constexpr std::uint32_t SCARD_ATTR_CHANNEL_ID = 0x00020110;
inline constexpr std::uint32_t SCARD_ATTR_PROTOCOL_TYPES = 0x00030120;
inline constexpr std::uint32_t SCARD_ATTR_DEFAULT_CLK = 0x00030121;
inline constexpr std::uint32_t SCARD_ATTR_MAX_CLK = 0x00030122;
inline constexpr std::uint32_t SCARD_ATTR_DEFAULT_DATA_RATE = 0x00030123;
inline constexpr std::uint32_t SCARD_ATTR_MAX_DATA_RATE = 0x00030124;
inline constexpr std::uint32_t SCARD_ATTR_MAX_IFSD = 0x00030125;
inline constexpr std::uint32_t SCARD_ATTR_CHARACTERISTICS = 0x00060150;
inline constexpr std::uint32_t RPC_TYPE = 0x0007A009;
inline constexpr std::uint32_t PIPE_NAME = 0x0007A00A;
inline constexpr std::uint32_t EVENT_PIPE_NAME = 0x0007A00B;
// The tags that a deriving reader answers, or refuses.
inline constexpr std::uint32_t kFirstVendorDefinedAttribute = PIPE_NAME;
inline constexpr std::uint32_t kLastVendorDefinedAttribute = 0x0007A00E;
// Deliberately added beside the others, outside the vendor-defined range: for a host that brings a
// reader back which has stopped serving: 0 while the reader's server thread serves, 997 while it
// still creates its pipes, otherwise the code that the thread has ended with. 32 bits.
inline constexpr std::uint32_t SERVER_RESULT = 0x0007A010;
inline constexpr std::uint32_t SCARD_ATTR_CURRENT_PROTOCOL_TYPE = 0x00080201;
inline constexpr std::uint32_t SCARD_ATTR_CURRENT_IFSC = 0x00080207;
inline constexpr std::uint32_t SCARD_ATTR_ATR_STRING = 0x00090303;
inline constexpr std::uint32_t SCARD_ATTR_DEVICE_UNIT = 0x7FFF0001;
inline constexpr std::uint32_t SCARD_ATTR_DEVICE_IN_USE = 0x7FFF0002;

// The header of a transmit, in and out: protocol and header length, 32 bits each, little-endian.
inline constexpr std::uint32_t kTransmitHeaderSize = 8;  // bytes

}  // namespace zelta
