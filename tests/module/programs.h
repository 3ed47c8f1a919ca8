// Runs the driver's host as a separate process.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "tests/doubles/agent/card_agent.h"
#include "tests/module/module_world.h"
#include "tests/support/child_process.h"

namespace zelta::test {

// Runs host_program.cpp, a driver host with the module. The test fails if it does not come up.
class HostProgram {
 public:
  HostProgram() : process_(ZELTA_HOST_PROGRAM_OF_TESTS, {ZELTA_VSC_MODULE}) {
    EXPECT_EQ(process_.readLine(), "up");
  }

  // "STATUS OUTPUT".
  std::string control(std::uint32_t code, const Bytes& input = {}) {
    return ask("control " + hexCode(code) + " 1024 " + toHex(input));
  }
  // The ATR after a reset; none if that fails.
  std::optional<Bytes> reset() {
    return parseHex(control(IOCTL_SMARTCARD_POWER, numberBytes(SCARD_COLD_RESET))
                        .substr(std::string(kDone).size()));
  }
  // The response, after the header, of a transmit that succeeds.
  std::string transmit(const Bytes& apdu) {
    const std::string result =
        control(IOCTL_SMARTCARD_TRANSMIT, transmitBuffer(SCARD_PROTOCOL_T1, apdu));
    const std::string good = kDone + toHex(transmitBuffer(SCARD_PROTOCOL_T1, {}));
    return result.rfind(good, 0) == 0 ? result.substr(good.size()) : result;
  }
  // A request that waits in the driver, and how it ends.
  bool submit(std::uint32_t code) { return ask("submit " + hexCode(code)) == "ok"; }
  std::string result() { return ask("result"); }
  bool down() { return ask("down") == "ok"; }

  void askToExit(int code) { process_.writeLine("exit " + std::to_string(code)); }
  void kill() { process_.kill(); }
  std::optional<int> wait() { return process_.wait(); }

  // The beginning of a success.
  static constexpr char kDone[] = "0x00000000 ";

 private:
  static std::string hexCode(std::uint32_t code) {
    std::ostringstream text;
    text << std::hex << code;
    return text.str();
  }
  std::string ask(const std::string& command) {
    process_.writeLine(command);
    return process_.readLine().value_or("no answer");
  }

  ChildProcess process_;
};

}  // namespace zelta::test
