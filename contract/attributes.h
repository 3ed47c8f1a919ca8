// The reader's attributes: tags (the PC/SC standard's and the system's own), names as the log has
// them, kinds and units.
#pragma once

#include <cstdint>

namespace zelta {

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
// The tags left to a deriving reader.
inline constexpr std::uint32_t kFirstVendorDefinedAttribute = PIPE_NAME;
inline constexpr std::uint32_t kLastVendorDefinedAttribute = 0x0007A00E;
// Intentional: an addition outside the vendor-defined range, for a host that restarts
// a reader which has stopped serving: 0 while the reader's server thread serves, 997
// (ERROR_IO_PENDING) while it still creates its pipes, otherwise its exit code.
inline constexpr std::uint32_t SERVER_RESULT = 0x0007A010;
inline constexpr std::uint32_t SCARD_ATTR_CURRENT_PROTOCOL_TYPE = 0x00080201;
inline constexpr std::uint32_t SCARD_ATTR_CURRENT_IFSC = 0x00080207;
inline constexpr std::uint32_t SCARD_ATTR_ATR_STRING = 0x00090303;
inline constexpr std::uint32_t SCARD_ATTR_DEVICE_UNIT = 0x7FFF0001;
inline constexpr std::uint32_t SCARD_ATTR_DEVICE_IN_USE = 0x7FFF0002;

enum class AttributeKind {
  kText,      // bytes, with a zero byte at the end
  kNumber,    // 32 bits; the log has the name alone
  kQuantity,  // 32 bits; the log has the value and its unit, too
  kBytes,
};

struct Attribute {
  std::uint32_t tag;
  const char* name;  // the log's text is "[GATT]" and this
  AttributeKind kind;
  const char* unit;  // of a quantity; empty if it has none
};

// Every attribute that can be read.
inline constexpr Attribute kAttributes[] = {
    {SCARD_ATTR_VENDOR_NAME, "SCARD_ATTR_VENDOR_NAME", AttributeKind::kText, ""},
    {SCARD_ATTR_VENDOR_IFD_TYPE, "SCARD_ATTR_VENDOR_IFD_TYPE", AttributeKind::kText, ""},
    {SCARD_ATTR_CHANNEL_ID, "SCARD_ATTR_CHANNEL_ID", AttributeKind::kQuantity, ""},
    {SCARD_ATTR_PROTOCOL_TYPES, "SCARD_ATTR_PROTOCOL_TYPES", AttributeKind::kQuantity, ""},
    {SCARD_ATTR_DEFAULT_CLK, "SCARD_ATTR_DEFAULT_CLK", AttributeKind::kQuantity, "kHz"},
    {SCARD_ATTR_MAX_CLK, "SCARD_ATTR_MAX_CLK", AttributeKind::kQuantity, "kHz"},
    {SCARD_ATTR_DEFAULT_DATA_RATE, "SCARD_ATTR_DEFAULT_DATA_RATE", AttributeKind::kQuantity, "bps"},
    {SCARD_ATTR_MAX_DATA_RATE, "SCARD_ATTR_MAX_DATA_RATE", AttributeKind::kQuantity, "bps"},
    {SCARD_ATTR_MAX_IFSD, "SCARD_ATTR_MAX_IFSD", AttributeKind::kQuantity, ""},
    {SCARD_ATTR_CHARACTERISTICS, "SCARD_ATTR_CHARACTERISTICS", AttributeKind::kNumber, ""},
    {RPC_TYPE, "RPC_TYPE", AttributeKind::kNumber, ""},
    {PIPE_NAME, "PIPE_NAME", AttributeKind::kText, ""},
    {EVENT_PIPE_NAME, "EVENT_PIPE_NAME", AttributeKind::kText, ""},
    {SERVER_RESULT, "SERVER_RESULT", AttributeKind::kNumber, ""},
    {SCARD_ATTR_CURRENT_PROTOCOL_TYPE, "SCARD_ATTR_CURRENT_PROTOCOL_TYPE", AttributeKind::kQuantity,
     ""},
    {SCARD_ATTR_CURRENT_IFSC, "SCARD_ATTR_CURRENT_IFSC", AttributeKind::kQuantity, ""},
    {SCARD_ATTR_ATR_STRING, "SCARD_ATTR_ATR_STRING", AttributeKind::kBytes, ""},
    {SCARD_ATTR_DEVICE_UNIT, "SCARD_ATTR_DEVICE_UNIT", AttributeKind::kNumber, ""},
};

// Null if there is no such attribute.
constexpr const Attribute* findAttribute(std::uint32_t tag) {
  for (const Attribute& attribute : kAttributes) {
    if (attribute.tag == tag) return &attribute;
  }
  return nullptr;
}

}  // namespace zelta
