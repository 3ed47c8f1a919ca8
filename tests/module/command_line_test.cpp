// The agent's program as its user starts it, with a scripted card, and the driver in a host of its
// own.
#include <gmock/gmock.h>

#include <fstream>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "tests/module/module_world.h"
#include "tests/module/programs.h"
#include "tests/support/system.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {
namespace {

using ::testing::StartsWith;

constexpr char kScript[] =
    "atr 3B 95 13 81 01 80 73 FF 01 00\n"
    "command 00 A4 04 00 * -> 61 10\n"
    "command 00 B0 ?? ?? 00 -> fill 256\n"
    "command 80 20 * -> echo\n"
    "command 80 30 -> 90 00\n"
    "on 80 30 remove after 100ms\n"
    "on 80 30 insert after 1500ms\n"
    "command 80 40 -> 90 00 after 20s  # later than agent and driver wait\n";

class CommandLineTest : public ::testing::Test {
 protected:
  CommandLineTest() { std::ofstream(folder_.file("card.txt")) << kScript; }

  std::unique_ptr<ChildProcess> startAgent() const {
    std::vector<std::string> arguments = {
        "--backend", "script", "--script", folder_.file("card.txt"), "--session-id", kSession};
    if (kAgentHasControl) {
      arguments.insert(arguments.end(), {"--control", folder_.file("ctl")});
    }
    auto agent = std::make_unique<ChildProcess>(ZELTA_AGENT_PROGRAM, arguments);
    EXPECT_TRUE(agent->readLineWith("reader 0, script card, session"));
    return agent;
  }
  // A request for a card waits.
  static bool awaitCard(HostProgram& host) { return host.submit(IOCTL_SMARTCARD_IS_PRESENT); }
  // The card that is awaited comes and is made ready.
  static void expectCard(HostProgram& host) {
    ASSERT_THAT(host.result(), StartsWith(HostProgram::kDone));
    EXPECT_EQ(host.control(IOCTL_SMARTCARD_POWER, number(SCARD_COLD_RESET)),
              HostProgram::kDone + HostProgram::hex(CardAgent::atrOfT1()));
    EXPECT_EQ(host.control(IOCTL_SMARTCARD_SET_PROTOCOL, number(SCARD_PROTOCOL_T1)),
              HostProgram::kDone);
    EXPECT_EQ(transmit(host, {0x80, 0x20, 0x01}), "8020019000");
  }
  static std::string transmit(HostProgram& host, const Bytes& apdu) {
    return host.transmit(SCARD_PROTOCOL_T1, apdu);
  }
  static void expectRemoval(HostProgram& host) {
    ASSERT_THAT(host.result(), StartsWith(HostProgram::kDone));
    EXPECT_EQ(host.control(IOCTL_SMARTCARD_GET_STATE),
              HostProgram::kDone + std::string("01000000"));
  }

  static constexpr char kSession[] = "12345678-9abc-def0-1234-56789abcdef0";

  const ModuleWorld world_;
  const TempFolder folder_;
};

TEST_F(CommandLineTest, CardOfTheScriptWorksComesAndGoes) {
  HostProgram host;
  ASSERT_TRUE(awaitCard(host));
  const auto agent = startAgent();
  expectCard(host);
  EXPECT_EQ(transmit(host, {0x00, 0xA4, 0x04, 0x00, 0x01, 0xA0}), "6110");
  EXPECT_EQ(transmit(host, {0x00, 0xB0, 0x00, 0x00, 0x00}).size(), 2u * 258);
  EXPECT_EQ(transmit(host, {0x00, 0x01}), "6D00");
  ASSERT_TRUE(host.submit(IOCTL_SMARTCARD_IS_ABSENT));
  EXPECT_EQ(transmit(host, {0x80, 0x30}), "9000");
  expectRemoval(host);
  ASSERT_TRUE(awaitCard(host));
  expectCard(host);
  EXPECT_TRUE(host.down());
  EXPECT_GT(world_.countInLog(kSession), 0u);
}

// The agent opens the pipes at about the time of the request, which it cannot see: it says
// "Connected" when the driver has taken something.
TEST_F(CommandLineTest, AgentThatIsThereBeforeAnybodyAsksServes) {
  HostProgram host;
  const auto agent = startAgent();
  ASSERT_TRUE(awaitCard(host));
  expectCard(host);
}

TEST_F(CommandLineTest, CardThatIsTooSlowCostsItsCommandOnly) {
  HostProgram host;
  ASSERT_TRUE(awaitCard(host));
  const auto agent = startAgent();
  expectCard(host);
  // The agent answers in its stead before the driver gives up.
  EXPECT_EQ(transmit(host, {0x80, 0x40}), "6F00");
  EXPECT_EQ(world_.countInLog("[QueryTransmit]Timeout"), 0u);
}

TEST_F(CommandLineTest, AgentThatIsStartedAgainServesTheSameHost) {
  HostProgram host;
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(awaitCard(host));
    const auto agent = startAgent();
    expectCard(host);
    ASSERT_TRUE(host.submit(IOCTL_SMARTCARD_IS_ABSENT));
    agent->kill();
    expectRemoval(host);
  }
}

TEST_F(CommandLineTest, HostThatIsStartedAgainIsServedByTheSameAgent) {
  std::unique_ptr<ChildProcess> agent;
  for (int round = 0; round < 3; ++round) {
    HostProgram host;
    ASSERT_TRUE(awaitCard(host));
    if (!agent) agent = startAgent();
    ASSERT_THAT(host.result(), StartsWith(HostProgram::kDone));
    EXPECT_EQ(host.control(IOCTL_SMARTCARD_POWER, number(SCARD_COLD_RESET)),
              HostProgram::kDone + HostProgram::hex(CardAgent::atrOfT1()));
    host.askToExit(0);
    EXPECT_EQ(host.wait(), 0);
  }
}

}  // namespace
}  // namespace zelta::test
