// The card behind the agent of a test, and the bytes that it and the driver speak.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "contract/bytes.h"
#include "tests/doubles/agent/link_agent.h"

namespace zelta::test {

// 32-bit little-endian numbers.
Bytes number(std::uint32_t value);
std::uint32_t toNumber(const Bytes& bytes);
// What a transmit takes and gives: protocol, header length, then the APDU.
Bytes transmitBuffer(std::uint32_t protocol, const Bytes& apdu);
Bytes operator+(Bytes front, const Bytes& back);

// The card behind the agent. Answers a command with itself and 90 00; while it is out every query
// is answered with length 0.
class TestCard {
 public:
  LinkAgent::Answer answers();
  void insert() { present_ = true; }
  void pull() { present_ = false; }
  bool present() const { return present_; }

  // T=1 with TA(1) = 13, as the parser's examples have it.
  static Bytes atrOfT1() { return {0x3B, 0x95, 0x13, 0x81, 0x01, 0x80, 0x73, 0xFF, 0x01, 0x00}; }
  // Names no protocol: T=0, and the current protocol stays what was selected.
  static Bytes atrOfT0() { return {0x3B, 0x00}; }
  // For as long as no agent answers.
  void setAtr(Bytes atr) { atr_ = std::move(atr); }
  static Bytes responseTo(const Bytes& apdu) { return apdu + Bytes{0x90, 0x00}; }

 private:
  std::atomic<bool> present_{false};
  Bytes atr_ = atrOfT1();
};

}  // namespace zelta::test
