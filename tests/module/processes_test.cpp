// The driver's host and the agent's program as separate processes: they crash, end and are started
// again.
#include <gmock/gmock.h>

#include <fstream>

#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "tests/module/module_world.h"
#include "tests/module/programs.h"
#include "tests/support/system.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {
namespace {

using ::testing::StartsWith;

constexpr char kSession[] = "12345678-9abc-def0-1234-56789abcdef0";

// The agent is started as its user does it, with a scripted card.
class ProcessesTest : public ::testing::Test {
 protected:
  ProcessesTest() {
    std::ofstream(folder_.file("card.txt")) << "atr 3B 95 13 81 01 80 73 FF 01 00\n"
                                               "command 00 A4 04 00 * -> 61 10\n"
                                               "command 00 B0 ?? ?? 00 -> fill 256\n"
                                               "command 80 20 * -> echo\n"
                                               "command 80 30 -> 90 00\n"
                                               "on 80 30 remove after 100ms\n"
                                               "on 80 30 insert after 1500ms\n";
  }

  std::unique_ptr<ChildProcess> startAgent() const {
    const std::vector<std::string> options{
        "--backend",    "script", "--script",  folder_.file("card.txt"),
        "--session-id", kSession, "--control", controlPathFor(folder_.path())};
    auto agent = std::make_unique<ChildProcess>(ZELTA_AGENT_PROGRAM, options);
    EXPECT_TRUE(agent->readLineWith("reader 0, script card, session"));
    return agent;
  }
  static bool awaitCard(HostProgram& host) { return host.submit(IOCTL_SMARTCARD_IS_PRESENT); }
  // Expects that the awaited card comes and is made ready; a request for its removal then waits.
  static void expectCard(HostProgram& host) {
    ASSERT_THAT(host.result(), StartsWith(HostProgram::kDone));
    EXPECT_EQ(host.reset(), CardAgent::atrOfT1());
    EXPECT_EQ(host.control(IOCTL_SMARTCARD_SET_PROTOCOL, numberBytes(SCARD_PROTOCOL_T1)),
              HostProgram::kDone);
    EXPECT_EQ(host.transmit({0x80, 0x20, 0x01}), "8020019000");
    ASSERT_TRUE(host.submit(IOCTL_SMARTCARD_IS_ABSENT));
  }
  static void expectRemoval(HostProgram& host) {
    ASSERT_THAT(host.result(), StartsWith(HostProgram::kDone));
    EXPECT_EQ(host.control(IOCTL_SMARTCARD_GET_STATE),
              HostProgram::kDone + toHex(numberBytes(SCARD_ABSENT)));
  }

  const ModuleWorld world_;
  const TempFolder folder_;
};

TEST_F(ProcessesTest, CardOfTheScript_WorksComesAndGoes) {
  HostProgram host;
  ASSERT_TRUE(awaitCard(host));
  const auto agent = startAgent();
  expectCard(host);
  EXPECT_EQ(host.transmit({0x00, 0xA4, 0x04, 0x00, 0x01, 0xA0}), "6110");
  EXPECT_EQ(host.transmit({0x00, 0xB0, 0x00, 0x00, 0x00}).size(), 2u * 258);
  EXPECT_EQ(host.transmit({0x00, 0x01}), "6D00");
  EXPECT_EQ(host.transmit({0x80, 0x30}), "9000");
  expectRemoval(host);
  ASSERT_TRUE(awaitCard(host));
  expectCard(host);
  EXPECT_TRUE(host.down());
  EXPECT_GT(world_.countInLog(kSession), 0u);
}

// The agent opens the pipes at about the time of the request, which it cannot see: it says
// "Connected" when the driver has taken something.
TEST_F(ProcessesTest, AgentThatIsThereBeforeAnybodyAsks_Serves) {
  HostProgram host;
  const auto agent = startAgent();
  ASSERT_TRUE(awaitCard(host));
  expectCard(host);
}

TEST_F(ProcessesTest, AgentThatCrashes_TakesItsCardAlongAndTheNextBringsItBack) {
  HostProgram host;
  for (int round = 0; round < 3; ++round) {
    ASSERT_TRUE(awaitCard(host));
    const auto agent = startAgent();
    expectCard(host);
    agent->kill();
    expectRemoval(host);
  }
}

TEST_F(ProcessesTest, ExitUnderADriverThatIsUp_EndsWithTheExitCode) {
  HostProgram host;
  ASSERT_TRUE(awaitCard(host));
  const auto agent = startAgent();
  expectCard(host);
  host.askToExit(42);
  EXPECT_EQ(host.wait(), 42);
}

TEST_F(ProcessesTest, HostThatCrashed_LeavesItsPipesAndItsAgentToTheNext) {
  std::unique_ptr<ChildProcess> agent;
  for (int round = 0; round < 2; ++round) {
    HostProgram host;
    ASSERT_TRUE(awaitCard(host));
    if (!agent) agent = startAgent();
    expectCard(host);
    host.kill();
    EXPECT_EQ(host.wait(), ChildProcess::kKilled);
  }
}

}  // namespace
}  // namespace zelta::test
