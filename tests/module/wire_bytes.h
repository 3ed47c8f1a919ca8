// The bytes that I/O controls take and give.
#pragma once

#include <cstdint>

#include "contract/bytes.h"

namespace zelta::test {

// What a transmit takes and gives: protocol, header length, then the APDU.
Bytes transmitBuffer(std::uint32_t protocol, const Bytes& apdu);

}  // namespace zelta::test
