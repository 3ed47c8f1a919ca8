#include "tests/module/wire_bytes.h"

#include <algorithm>

#include "contract/io_controls.h"

namespace zelta::test {

Bytes transmitBuffer(std::uint32_t protocol, const Bytes& apdu) {
  Bytes buffer(kTransmitHeaderSize + apdu.size());
  storeLittleEndian(buffer.data(), protocol);
  storeLittleEndian(buffer.data() + kNumberSize, kTransmitHeaderSize);
  std::copy(apdu.begin(), apdu.end(), buffer.begin() + kTransmitHeaderSize);
  return buffer;
}

}  // namespace zelta::test
