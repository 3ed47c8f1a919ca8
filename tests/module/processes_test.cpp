// The driver, its agent and their hosts as processes of their own: they crash, end and are started
// again.
#include <fstream>

#include "tests/module/hosted_module.h"
#include "tests/module/programs.h"
#include "tests/support/system.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {
namespace {

using ::testing::StartsWith;

constexpr char kSession[] = "12345678-9abc-def0-1234-56789abcdef0";

// The driver here, its agent in another process.
class AgentProcessTest : public HostedModuleTest {
 protected:
  // An agent that serves the driver with a card, which works.
  std::unique_ptr<AgentProgram> startAgent() {
    auto agent = std::make_unique<AgentProgram>();
    const auto insertion = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
    EXPECT_TRUE(agent->does("connect"));
    EXPECT_TRUE(insertion->wait(kLong));
    powerCard();
    EXPECT_EQ(transmit({0x00, 0xB0, 0x01}), CardAgent::responseTo({0x00, 0xB0, 0x01}));
    return agent;
  }
  static void expectSuccess(host::IoOperation& operation) {
    ASSERT_TRUE(operation.wait(kLong));
    EXPECT_EQ(operation.result().status, status::kSuccess);
  }
};

TEST_F(AgentProcessTest, AgentThatCrashes_TakesItsCardAlongAndAnotherBringsItBack) {
  for (int round = 0; round < 3; ++round) {
    const auto agent = startAgent();
    const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
    agent->crash();
    expectSuccess(*removal);
    EXPECT_EQ(state(), SCARD_ABSENT);
  }
}

TEST_F(AgentProcessTest, AgentThatCrashesInsideATransmit_EndsIt) {
  const auto agent = startAgent();
  ASSERT_TRUE(agent->does("mute"));
  const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
  auto transmit =
      controlOnThread(IOCTL_SMARTCARD_TRANSMIT, transmitBuffer(SCARD_PROTOCOL_T1, {1, 2, 3}), 64);
  ASSERT_TRUE(agent->does("transmits 2"));
  agent->crash();
  expectSuccess(*removal);
  const host::IoResult result = transmit.get();
  if (result.status == status::kSuccess) {
    // The loss was noticed first: the card counts as removed.
    EXPECT_EQ(result.output, transmitBuffer(SCARD_PROTOCOL_T1, {0x69, 0x01}));
  } else {
    EXPECT_EQ(result.status, status::kNoMedia);
  }
  startAgent();
}

// The driver in a host of its own, which ends without asking it.
class HostProcessTest : public ::testing::Test {
 protected:
  // The agent serves that host and its card is in; a request for its removal waits.
  void serve(HostProgram& host) {
    ASSERT_TRUE(host.submit(IOCTL_SMARTCARD_IS_PRESENT));
    ASSERT_TRUE(agent_.does("connect"));
    ASSERT_THAT(host.result(), StartsWith(HostProgram::kDone));
    EXPECT_EQ(host.reset(), CardAgent::atrOfT1());
    ASSERT_TRUE(host.submit(IOCTL_SMARTCARD_IS_ABSENT));
  }

  ModuleWorld world_;
  AgentProgram agent_;
};

TEST_F(HostProcessTest, ExitUnderADriverThatIsUp_EndsWithTheExitCode) {
  HostProgram first;
  serve(first);
  first.askToExit(42);
  EXPECT_EQ(first.wait(), 42);
  HostProgram next;
  serve(next);
}

TEST_F(HostProcessTest, HostThatCrashed_LeavesItsPipesAndItsAgentToTheNext) {
  HostProgram first;
  serve(first);
  first.kill();
  EXPECT_EQ(first.wait(), ChildProcess::kKilled);
  HostProgram next;
  serve(next);
  EXPECT_TRUE(next.down());
}

// The agent's program as its user starts it, with a scripted card.
class CommandLineTest : public ::testing::Test {
 protected:
  CommandLineTest() {
    std::ofstream(folder_.file("card.txt")) << "atr 3B 95 13 81 01 80 73 FF 01 00\n"
                                               "command 00 A4 04 00 * -> 61 10\n"
                                               "command 00 B0 ?? ?? 00 -> fill 256\n"
                                               "command 80 20 * -> echo\n"
                                               "command 80 30 -> 90 00\n"
                                               "on 80 30 remove after 100ms\n"
                                               "on 80 30 insert after 1500ms\n";
  }

  std::unique_ptr<ChildProcess> startAgent() const {
    std::vector<std::string> options{"--backend",    "script", "--script", folder_.file("card.txt"),
                                     "--session-id", kSession};
    if (kAgentHasControl) options.insert(options.end(), {"--control", folder_.file("ctl")});
    auto agent = std::make_unique<ChildProcess>(ZELTA_AGENT_PROGRAM, options);
    EXPECT_TRUE(agent->readLineWith("reader 0, script card, session"));
    return agent;
  }
  static bool awaitCard(HostProgram& host) { return host.submit(IOCTL_SMARTCARD_IS_PRESENT); }
  // The card that is awaited comes and is made ready.
  static void expectCard(HostProgram& host) {
    ASSERT_THAT(host.result(), StartsWith(HostProgram::kDone));
    EXPECT_EQ(host.reset(), CardAgent::atrOfT1());
    EXPECT_EQ(host.control(IOCTL_SMARTCARD_SET_PROTOCOL, numberBytes(SCARD_PROTOCOL_T1)),
              HostProgram::kDone);
    EXPECT_EQ(host.transmit({0x80, 0x20, 0x01}), "8020019000");
  }
  static void expectRemoval(HostProgram& host) {
    ASSERT_THAT(host.result(), StartsWith(HostProgram::kDone));
    EXPECT_EQ(host.control(IOCTL_SMARTCARD_GET_STATE),
              HostProgram::kDone + toHex(numberBytes(SCARD_ABSENT)));
  }

  const ModuleWorld world_;
  const TempFolder folder_;
};

TEST_F(CommandLineTest, CardOfTheScript_WorksComesAndGoes) {
  HostProgram host;
  ASSERT_TRUE(awaitCard(host));
  const auto agent = startAgent();
  expectCard(host);
  EXPECT_EQ(host.transmit({0x00, 0xA4, 0x04, 0x00, 0x01, 0xA0}), "6110");
  EXPECT_EQ(host.transmit({0x00, 0xB0, 0x00, 0x00, 0x00}).size(), 2u * 258);
  EXPECT_EQ(host.transmit({0x00, 0x01}), "6D00");
  ASSERT_TRUE(host.submit(IOCTL_SMARTCARD_IS_ABSENT));
  EXPECT_EQ(host.transmit({0x80, 0x30}), "9000");
  expectRemoval(host);
  ASSERT_TRUE(awaitCard(host));
  expectCard(host);
  EXPECT_TRUE(host.down());
  EXPECT_GT(world_.countInLog(kSession), 0u);
}

// The agent opens the pipes at about the time of the request, which it cannot see: it says
// "Connected" when the driver has taken something.
TEST_F(CommandLineTest, AgentThatIsThereBeforeAnybodyAsks_Serves) {
  HostProgram host;
  const auto agent = startAgent();
  ASSERT_TRUE(awaitCard(host));
  expectCard(host);
}

}  // namespace
}  // namespace zelta::test
