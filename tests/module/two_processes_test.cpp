// The driver here, its agent in another process, and the administrator at the registry.
#include <functional>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "tests/module/hosted_module.h"
#include "tests/module/programs.h"
#include "tests/support/process_state.h"

namespace zelta::test {
namespace {

using ::testing::Contains;

class TwoProcessesTest : public HostedModuleTest {
 protected:
  // An agent that serves the driver, with a card in it or without.
  std::unique_ptr<AgentProgram> agentWith(const std::string& card) {
    auto agent = std::make_unique<AgentProgram>();
    const auto insertion = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
    EXPECT_TRUE(agent->does(card) && agent->does("connect"));
    if (card == "card in") {
      EXPECT_TRUE(insertion->wait(kLong));
    }
    return agent;
  }
  std::unique_ptr<AgentProgram> agentWithWorkingCard() {
    auto agent = agentWith("card in");
    expectWorkingCard();
    return agent;
  }
  void expectWorkingCard() {
    EXPECT_EQ(control(IOCTL_SMARTCARD_POWER, number(SCARD_COLD_RESET), 64).output,
              CardAgent::atrOfT1());
    EXPECT_EQ(status(IOCTL_SMARTCARD_SET_PROTOCOL, number(SCARD_PROTOCOL_T1)), answer::kSuccess);
    EXPECT_EQ(transmit({0x00, 0xB0, 0x01}), CardAgent::responseTo({0x00, 0xB0, 0x01}));
  }
  void expectSuccess(host::IoOperation& operation) {
    ASSERT_TRUE(operation.wait(kLong));
    EXPECT_EQ(operation.result().status, answer::kSuccess);
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

TEST_F(TwoProcessesTest, CardComesWorksAndGoes) {
  const std::string session = "12345678-9abc-def0-1234-56789abcdef0";
  const auto agent = agentWith("card out");
  const auto insertion = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
  ASSERT_TRUE(agent->does("session " + session));
  ASSERT_TRUE(agent->does("insert"));
  expectSuccess(*insertion);
  expectWorkingCard();
  const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
  ASSERT_TRUE(agent->does("remove"));
  expectSuccess(*removal);
  EXPECT_EQ(state(), SCARD_ABSENT);
  end();
  EXPECT_GT(world_.countInLog(session), 0u);
}

TEST_F(TwoProcessesTest, AgentThatCrashesTakesItsCardAlongAndAnotherBringsItBack) {
  for (int round = 0; round < 3; ++round) {
    const auto agent = agentWithWorkingCard();
    const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
    agent->crash();
    expectSuccess(*removal);
    EXPECT_EQ(state(), SCARD_ABSENT);
  }
}

TEST_F(TwoProcessesTest, AgentThatCrashesWithoutACardCancelsWhoWaitsForOne) {
  const auto agent = agentWith("card out");
  const auto insertion = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
  agent->crash();
  ASSERT_TRUE(insertion->wait(kLong));
  EXPECT_EQ(insertion->result().status, answer::kCancelled);
  agentWithWorkingCard();
}

TEST_F(TwoProcessesTest, AgentThatCrashesInsideATransmitEndsIt) {
  const auto agent = agentWithWorkingCard();
  ASSERT_TRUE(agent->does("mute"));
  const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
  const Bytes command = transmitBuffer(SCARD_PROTOCOL_T1, {1, 2, 3});
  auto transmit = controlOnThread(IOCTL_SMARTCARD_TRANSMIT, command, 64);
  ASSERT_TRUE(agent->does("transmits 2"));
  agent->crash();
  expectSuccess(*removal);
  const host::IoResult result = transmit.get();
  if (result.status == answer::kSuccess) {
    // The loss was noticed first: the card counts as removed.
    EXPECT_EQ(result.output, transmitBuffer(SCARD_PROTOCOL_T1, {0x69, 0x01}));
  } else {
    EXPECT_EQ(result.status, answer::kNoMedia);
  }
  agentWithWorkingCard();
}

TEST_F(TwoProcessesTest, SilentAgentIsGivenUpAfterFiveSeconds) {
  const auto agent = agentWithWorkingCard();
  ASSERT_TRUE(agent->does("mute"));
  const Bytes command = transmitBuffer(SCARD_PROTOCOL_T1, {1, 2, 3});
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(status(IOCTL_SMARTCARD_TRANSMIT, command, 64), answer::kNoMedia);
  const auto elapsed = std::chrono::steady_clock::now() - begin;
  // Not before; a busy machine may take long to get round to it.
  EXPECT_GE(elapsed, 4900ms);
  EXPECT_LT(elapsed, 60s);
  const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
  agent->crash();
  expectSuccess(*removal);
  agentWithWorkingCard();
  end();
  EXPECT_THAT(world_.logSummaries(), Contains("<ERROR> -500 [QueryTransmit]Timeout"));
}

TEST_F(TwoProcessesTest, NothingIsLeftOfADriverWhoseAgentStays) {
  std::size_t threads = 0;
  for (int round = 0; round < 4; ++round) {
    if (round > 0) bringUp();
    const auto agent = agentWith("card in");
    const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
    end();
    EXPECT_EQ(removal->result().status, answer::kCancelled);
    EXPECT_FALSE(isMapped(ZELTA_VSC_MODULE));
    // The first round settles what process and system open for good.
    if (round == 0) threads = threadCount();
    EXPECT_EQ(threadCount(), threads);
  }
}

TEST_F(TwoProcessesTest, PolicyIsFollowedWhileTheDriverRuns) {
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
  EXPECT_EQ(countAfter(info), 1u);
}

class RotationTimeTest : public TwoProcessesTest {
 protected:
  // The driver finds a rotation time when it comes up.
  RotationTimeTest() {
    end();
    world_.setRotationTime("60");
    bringUp();
  }
};

TEST_F(RotationTimeTest, IsFollowedWhileTheDriverRuns) {
  const auto shows = [this](const std::string& text) { return world_.countInLog(text) == 1; };
  EXPECT_TRUE(until([&] { return shows("Setting log rotation time to: 60 mins"); }));
  // Another one each time: a change from before the driver watches again may go unnoticed.
  int minutes = 100;
  EXPECT_TRUE(until([&] {
    const std::string text = std::to_string(++minutes);
    world_.setRotationTime(text);
    return until([&] { return shows("Setting log rotation time to: " + text + " mins"); }, 2s);
  }));
  int bad = 0;
  EXPECT_TRUE(until([&] {
    const std::string text = "never" + std::to_string(++bad);
    world_.setRotationTime(text);
    return until([&] { return shows("Invalid log rotation time obtained (\"" + text + "\")."); },
                 2s);
  }));
}

}  // namespace
}  // namespace zelta::test
