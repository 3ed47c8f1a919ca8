#include "tests/module/test_card.h"

#include <algorithm>

#include "contract/io_controls.h"
#include "contract/wire.h"

namespace zelta::test {

Bytes transmitBuffer(std::uint32_t protocol, const Bytes& apdu) {
  Bytes buffer(kTransmitHeaderSize + apdu.size());
  storeLittleEndian(buffer.data(), protocol);
  storeLittleEndian(buffer.data() + kNumberSize, kTransmitHeaderSize);
  std::copy(apdu.begin(), apdu.end(), buffer.begin() + kTransmitHeaderSize);
  return buffer;
}

Bytes TestCard::responseTo(Bytes apdu) {
  apdu.push_back(0x90);
  apdu.push_back(0x00);
  return apdu;
}

LinkAgent::Answer TestCard::answers() {
  return [this](const LinkAgent::Command& command) -> std::optional<Bytes> {
    if (!present_) return Bytes();
    return command.code == AgentCommand::kQueryTransmit ? responseTo(command.apdu) : atrOfT1();
  };
}

}  // namespace zelta::test
