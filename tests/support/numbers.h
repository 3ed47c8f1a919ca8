// Numbers in wire format, for tests.
#pragma once

#include "contract/bytes.h"

namespace zelta::test {

// The four bytes of a number, little-endian, followed by `tail`.
inline Bytes number(std::uint32_t value, const Bytes& tail = {}) {
  const auto head = toLittleEndian(value);
  Bytes bytes(head.begin(), head.end());
  for (const std::uint8_t byte : tail) bytes.push_back(byte);
  return bytes;
}

}  // namespace zelta::test
