// The driver, its agent and their hosts as processes of their own: they crash, end and are started
// again, and the administrator changes the registry meanwhile.
#include <fstream>
#include <functional>

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
  // Asks again and again: nobody tells when a thread of the driver's has taken note of a change.
  static bool until(const std::function<bool()>& condition,
                    std::chrono::milliseconds limit = kLong) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(50ms);
    }
    return true;
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

TEST_F(AgentProcessTest, PolicyThatChanges_IsFollowedWhileTheDriverRuns) {
  const auto countAfter = [this](const std::string& text) {
    const std::size_t before = world_.countInLog(text);
    state();
    return world_.countInLog(text) - before;
  };
  const std::string info = "[GSTA]IOCTL_SMARTCARD_GET_STATE";
  const std::string debug = "Start section:CMyDevice::ProcessIoControl";
  EXPECT_EQ(countAfter(info), 1u);
  EXPECT_EQ(countAfter(debug), 1u);
  world_.setPolicy(0);
  EXPECT_TRUE(until([&] { return countAfter(info) == 0; }));
  EXPECT_EQ(countAfter(debug), 0u);
  world_.setPolicy(2);
  EXPECT_TRUE(until([&] { return countAfter(info) == 1; }));
  EXPECT_EQ(countAfter(debug), 0u);
  world_.setPolicy(3);
  EXPECT_TRUE(until([&] { return countAfter(debug) == 1; }));
}

TEST_F(AgentProcessTest, RotationTimeThatChanges_IsFollowedWhileTheDriverRuns) {
  end();
  world_.setRotationTime("60");
  bringUp();
  const auto shows = [this](const std::string& text) { return world_.countInLog(text) == 1; };
  EXPECT_TRUE(until([&] { return shows("Setting log rotation time to: 60 mins"); }));
  // Another one each time: a change from before the driver watches again may go unnoticed.
  int minutes = 100;
  EXPECT_TRUE(until([&] {
    const std::string text = std::to_string(++minutes);
    world_.setRotationTime(text);
    return until([&] { return shows("Setting log rotation time to: " + text + " mins"); }, 2s);
  }));
  EXPECT_TRUE(until([&] {
    const std::string text = "never" + std::to_string(++minutes);
    world_.setRotationTime(text);
    return until([&] { return shows("Invalid log rotation time obtained (\"" + text + "\")."); },
                 2s);
  }));
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

TEST_F(HostProcessTest, ExitUnderADriverThatHasNoAgent_EndsWithTheExitCode) {
  HostProgram host;
  ASSERT_TRUE(host.submit(IOCTL_SMARTCARD_IS_PRESENT));
  host.askToExit(43);
  EXPECT_EQ(host.wait(), 43);
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
    std::ofstream(folder_.file("card.txt"))
        << "atr 3B 95 13 81 01 80 73 FF 01 00\n"
           "command 00 A4 04 00 * -> 61 10\n"
           "command 00 B0 ?? ?? 00 -> fill 256\n"
           "command 80 20 * -> echo\n"
           "command 80 30 -> 90 00\n"
           "on 80 30 remove after 100ms\n"
           "on 80 30 insert after 1500ms\n"
           "command 80 40 -> 90 00 after 20s  # later than agent and driver wait\n";
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

TEST_F(CommandLineTest, CardThatIsTooSlow_CostsItsCommandOnly) {
  HostProgram host;
  ASSERT_TRUE(awaitCard(host));
  const auto agent = startAgent();
  expectCard(host);
  // The agent answers in its stead before the driver gives up.
  EXPECT_EQ(host.transmit({0x80, 0x40}), "6F00");
  EXPECT_EQ(world_.countInLog("[QueryTransmit]Timeout"), 0u);
}

TEST_F(CommandLineTest, AgentThatIsStartedAgain_ServesTheSameHost) {
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

TEST_F(CommandLineTest, HostThatIsStartedAgain_IsServedByTheSameAgent) {
  std::unique_ptr<ChildProcess> agent;
  for (int round = 0; round < 3; ++round) {
    HostProgram host;
    ASSERT_TRUE(awaitCard(host));
    if (!agent) agent = startAgent();
    ASSERT_THAT(host.result(), StartsWith(HostProgram::kDone));
    EXPECT_EQ(host.reset(), CardAgent::atrOfT1());
    host.askToExit(0);
    EXPECT_EQ(host.wait(), 0);
  }
}

}  // namespace
}  // namespace zelta::test
