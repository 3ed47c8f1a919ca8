// The bytes that I/O controls take and give.
#pragma once

#include <cstdint>

#include "contract/bytes.h"

namespace zelta::test {

// 32-bit little-endian numbers.
Bytes number(std::uint32_t value);
std::uint32_t toNumber(const Bytes& bytes);
// What a transmit takes and gives: protocol, header length, then the APDU.
Bytes transmitBuffer(std::uint32_t protocol, const Bytes& apdu);
Bytes operator+(Bytes front, const Bytes& back);

}  // namespace zelta::test
