#include "tests/module/wire_bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "contract/bytes.h"
#include "contract/io_controls.h"

namespace zelta::test {

Bytes number(std::uint32_t value) {
  const auto bytes = toLittleEndian(value);
  return {bytes.begin(), bytes.end()};
}

std::uint32_t toNumber(const Bytes& bytes) {
  std::array<std::uint8_t, 4> four{};
  EXPECT_EQ(bytes.size(), four.size());
  std::copy_n(bytes.begin(), std::min(bytes.size(), four.size()), four.begin());
  return loadLittleEndian(four.data());
}

Bytes operator+(Bytes front, const Bytes& back) {
  front.insert(front.end(), back.begin(), back.end());
  return front;
}

Bytes transmitBuffer(std::uint32_t protocol, const Bytes& apdu) {
  return number(protocol) + number(kTransmitHeaderSize) + apdu;
}

}  // namespace zelta::test
