// The card of a test's agent.
#pragma once

#include <atomic>
#include <cstdint>

#include "contract/bytes.h"
#include "tests/doubles/agent/link_agent.h"

namespace zelta::test {

// What a transmit takes and gives: protocol, header length, then the APDU.
Bytes transmitBuffer(std::uint32_t protocol, const Bytes& apdu);

// Answers a command with itself and 90 00; while it is out every query is answered with length 0.
// Any thread.
class TestCard {
 public:
  LinkAgent::Answer answers();
  void insert() { present_ = true; }
  void pull() { present_ = false; }
  bool present() const { return present_; }

  // T=1 with TA(1) = 13, as the parser's examples have it.
  static Bytes atrOfT1() { return {0x3B, 0x95, 0x13, 0x81, 0x01, 0x80, 0x73, 0xFF, 0x01, 0x00}; }
  static Bytes responseTo(Bytes apdu);

 private:
  std::atomic<bool> present_{false};
};

}  // namespace zelta::test
