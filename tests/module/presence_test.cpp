// Cards and agents that come and go.
#include <future>

#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/wire.h"
#include "tests/module/hosted_module.h"
#include "tests/support/repetitions.h"
#include "tests/support/system.h"

namespace zelta::test {
namespace {

class PresenceTest : public HostedModuleTest {
 protected:
  // What a waiting request ended with.
  static framework::HRESULT ending(host::IoOperation& operation) {
    EXPECT_TRUE(operation.wait(kLong));
    return operation.completed() ? operation.result().status : host::kTimedOut;
  }

  // The event pipe first where the system allows it.
  static bool openBoth(PipeClient& command, PipeClient& events) {
    if constexpr (!kPipesListenAfterDisconnect) {
      return command.connect(commandPipeName(0)) && events.connectWhenListening(eventPipeName(0));
    }
    return events.connectWhenListening(eventPipeName(0)) && command.connect(commandPipeName(0));
  }
  // One attempt of an agent of two raw clients, which gives up where the driver does not ask it
  // for the card's ATR, and stays until the card is found.
  static void answerOneAtr(const std::future<framework::HRESULT>& found) {
    PipeClient events;
    PipeClient command;
    if (openBoth(command, events) && command.readNumber().has_value() && command.writeNumber(2) &&
        command.write({0x3B, 0x00})) {
      found.wait_for(kLong);
    }
  }
};

TEST_F(PresenceTest, CardInsertedAndRemovedHundredsOfTimes) {
  connectAgent();
  for (int round = 0; round < repetitions(300); ++round) {
    const auto insertion = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
    agent_.setCardIn(CardAgent::atrOfT1());
    ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
    ASSERT_EQ(ending(*insertion), answer::kSuccess);
    ASSERT_EQ(control(IOCTL_SMARTCARD_POWER, number(SCARD_COLD_RESET), 64).output,
              CardAgent::atrOfT1());
    const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
    agent_.setCardOut();
    ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
    ASSERT_EQ(ending(*removal), answer::kSuccess);
    ASSERT_EQ(state(), SCARD_ABSENT);
  }
}

TEST_F(PresenceTest, AgentsComeAndGo) {
  agent_.setCardIn(CardAgent::atrOfT1());
  for (int round = 0; round < repetitions(50); ++round) {
    connectAgent();
    const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
    agent_.die();
    ASSERT_EQ(ending(*removal), answer::kSuccess);
    ASSERT_EQ(state(), SCARD_ABSENT);
  }
}

TEST_F(PresenceTest, LossOfTheAgentCancelsWhoWaitsForACard) {
  connectAgent();
  const auto insertion = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
  agent_.die();
  EXPECT_EQ(ending(*insertion), answer::kCancelled);
  EXPECT_EQ(state(), SCARD_ABSENT);
  expectWorkingReader();
}

TEST_F(PresenceTest, AgentThatDiesInsideATransmitEndsIt) {
  agent_.setCardIn(CardAgent::atrOfT1());
  const auto waiting = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
  ASSERT_TRUE(agent_.connectSilently());
  // The ATR for the protocols, by hand.
  ASSERT_TRUE(agent_.command().readNumber().has_value());
  ASSERT_TRUE(agent_.command().writeNumber(2) && agent_.command().write({0x3B, 0x00}));
  ASSERT_EQ(ending(*waiting), answer::kSuccess);
  auto asked =
      std::async(std::launch::async, [this] { return submitWaiting(IOCTL_SMARTCARD_IS_ABSENT); });
  ASSERT_TRUE(agent_.command().readNumber().has_value());
  ASSERT_TRUE(agent_.command().writeNumber(2) && agent_.command().write({0x3B, 0x00}));
  const auto removal = asked.get();

  auto transmit = controlOnThread(IOCTL_SMARTCARD_TRANSMIT, transmitBuffer(0, {1, 2, 3}), 64);
  // Code, length and the command's three bytes; then half a length, and gone.
  ASSERT_EQ(agent_.command().read(11).size(), 11u);
  ASSERT_TRUE(agent_.command().write({5, 0}));
  agent_.die();
  EXPECT_EQ(ending(*removal), answer::kSuccess);
  const host::IoResult result = transmit.get();
  if (result.status == answer::kSuccess) {
    // The loss was noticed first: the card counts as removed.
    EXPECT_EQ(result.output, transmitBuffer(0, {0x69, 0x01}));
  } else {
    EXPECT_EQ(result.status, answer::kNoMedia);
  }
  expectWorkingReader();
}

TEST_F(PresenceTest, AgentThatDiesInsideAnAtrIsSurvived) {
  for (int round = 0; round < repetitions(20); ++round) {
    const auto waiting = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
    ASSERT_TRUE(agent_.connectSilently());
    ASSERT_TRUE(agent_.command().readNumber().has_value());
    ASSERT_TRUE(agent_.command().writeNumber(10));
    // Where a read takes what there is, the bytes that do not come would count as 0.
    if (kReadsWaitForAllBytes) {
      ASSERT_TRUE(agent_.command().write({0x3B}));
    }
    agent_.die();
    ASSERT_EQ(ending(*waiting), answer::kCancelled);
  }
  expectWorkingReader();
}

TEST_F(PresenceTest, AgentThatIsThereBeforeAnybodyWaitsForACardIsLetInAsAnyOther) {
  agent_.setCardIn(CardAgent::atrOfT1());
  ASSERT_TRUE(agent_.connectUnasked());
  const auto insertion = submitWaiting(IOCTL_SMARTCARD_IS_PRESENT);
  ASSERT_EQ(ending(*insertion), answer::kSuccess);
  ASSERT_EQ(status(IOCTL_SMARTCARD_POWER, number(SCARD_COLD_RESET), 64), answer::kSuccess);
  ASSERT_EQ(status(IOCTL_SMARTCARD_SET_PROTOCOL, number(SCARD_PROTOCOL_T1)), answer::kSuccess);
  EXPECT_EQ(transmit({1, 2}), CardAgent::responseTo({1, 2}));
}

TEST_F(PresenceTest, AgentThatDiesBeforeItIsLetInIsFollowedByAnother) {
  for (int round = 0; round < repetitions(20); ++round) {
    // Somebody waits for a card all the time, and asks anew when the loss of an agent ends that.
    std::future<framework::HRESULT> found = std::async(std::launch::async, [this] {
      framework::HRESULT result = answer::kCancelled;
      while (result == answer::kCancelled) result = status(IOCTL_SMARTCARD_IS_PRESENT);
      return result;
    });
    ASSERT_TRUE(agent_.connectSilently());
    agent_.die();
    // A dead client may still hold the command pipe when the next agent comes, which then tries
    // again after a pause, as agents do.
    do {
      answerOneAtr(found);
    } while (found.wait_for(20ms) != std::future_status::ready);
    EXPECT_EQ(found.get(), answer::kSuccess);
  }
}

TEST_F(PresenceTest, AgentThatDiesInsideASessionIdIsSurvived) {
  agent_.setCardIn(CardAgent::atrOfT1());
  for (int round = 0; round < repetitions(20); ++round) {
    connectAgent();
    const auto removal = submitWaiting(IOCTL_SMARTCARD_IS_ABSENT);
    ASSERT_TRUE(agent_.sendEvent(AgentEvent::kSessionLogId));
    if (round % 2 == 0) {
      ASSERT_TRUE(agent_.events().writeNumber(36));
    }
    ASSERT_TRUE(agent_.events().write({'1', '2'}));
    agent_.die();
    ASSERT_EQ(ending(*removal), answer::kSuccess);
  }
  expectWorkingReader();
}

TEST_F(PresenceTest, SecondAgentIsRefusedAndTheFirstNoticesNothing) {
  connectWithPoweredCard(SCARD_PROTOCOL_T1);
  PipeClient second;
  EXPECT_TRUE(!second.connect(commandPipeName(0)) || second.waitForDrop());
  EXPECT_EQ(transmit({1, 2}), CardAgent::responseTo({1, 2}));
}

}  // namespace
}  // namespace zelta::test
