// The command pipe: every command, its answers and what ends the connection.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/link/driver_connection.h"
#include "contract/bytes.h"
#include "contract/wire.h"
#include "tests/agent/card/held_card.h"
#include "tests/agent/link/driver_end.h"
#include "tests/agent/program/running_agent.h"

namespace zelta::test {
namespace {

using agent::kMaximumApduLength;

const Bytes kSelect = {0x00, 0xA4, 0x04, 0x00};
const Bytes kLateResponse = {0x6F, 0x00};
const Bytes kNothing;

// Short enough to be waited for, for what is to be late; long enough for a loaded machine, for what
// is to be in time.
agent::Timing hastyTiming() {
  agent::Timing timing = patientTiming();
  timing.answerLimit = std::chrono::seconds(3);
  return timing;
}

class AgentCommands : public testing::Test {
 protected:
  PipeFolder folder_;
  HeldCard card_;
  DriverEnd driver_;
};

TEST_F(AgentCommands, queryAtrResetResetsTheCardAndAnswersItsAtr) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  EXPECT_EQ(card_.resets(), 1);
}

TEST_F(AgentCommands, queryAtrAnswersTheAtrWithoutReset) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtr), heldAtr());
  EXPECT_EQ(card_.resets(), 0);
}

TEST_F(AgentCommands, transmitAnswersTheCardsResponse) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.transmit(kSelect), heldAnswer(1));
  EXPECT_EQ(driver_.transmit(kSelect), heldAnswer(2));
}

TEST_F(AgentCommands, cardReadyIsPassedOnAndNotAnswered) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_TRUE(driver_.notifyReady());
  EXPECT_EQ(driver_.transmit(kSelect), heldAnswer(1));
  EXPECT_EQ(card_.readyNotices(), 1);
}

TEST_F(AgentCommands, withoutCardEveryAnswerHasLengthZero) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), kNothing);
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtr), kNothing);
  EXPECT_EQ(driver_.transmit(kSelect), kNothing);
}

TEST_F(AgentCommands, muteCardIsAnsweredWithLengthZero) {
  card_.setMute(true);
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), kNothing);
  EXPECT_EQ(driver_.transmit(kSelect), kNothing);
}

TEST_F(AgentCommands, commandInSingleBytesIsUnderstood) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  for (const std::uint8_t byte : Bytes{2, 0, 0, 0, 2, 0, 0, 0, 0xAA, 0xBB}) {
    EXPECT_TRUE(driver_.sendBytes({byte}));
  }
  EXPECT_EQ(driver_.readAnswer(), heldAnswer(1));
}

TEST_F(AgentCommands, longestApduIsPassedToTheCard) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.transmit(Bytes(kMaximumApduLength)), heldAnswer(1));
}

TEST_F(AgentCommands, emptyApduIsAnsweredWithWrongLengthWithoutTheCard) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.transmit({}), (Bytes{0x67, 0x00}));
  EXPECT_EQ(driver_.transmit(kSelect), heldAnswer(1));
}

class HostileLength : public AgentCommands, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(HostileLength, dropsTheConnectionAndConnectsAgain) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_TRUE(driver_.sendNumber(static_cast<std::uint32_t>(AgentCommand::kQueryTransmit)));
  EXPECT_TRUE(driver_.sendNumber(GetParam()));
  EXPECT_TRUE(driver_.waitForDrop());
  EXPECT_TRUE(agent.log().has("error: The driver announced an APDU of " +
                              std::to_string(GetParam()) + " bytes; dropping the connection"));
  driver_.disconnect();
  EXPECT_EQ(driver_.acceptSession(), kSession);
  EXPECT_EQ(driver_.transmit(kSelect), heldAnswer(1));
}

INSTANTIATE_TEST_SUITE_P(Lengths, HostileLength,
                         testing::Values(kMaximumApduLength + 1, 300u * 1024u, 0x7FFFFFFFu,
                                         0xFFFFFFFFu));

TEST_F(AgentCommands, unknownCommandDropsTheConnectionAndConnectsAgain) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_TRUE(driver_.sendNumber(4));
  EXPECT_TRUE(driver_.waitForDrop());
  EXPECT_TRUE(agent.log().has("error: Unknown command 4; dropping the connection"));
  driver_.disconnect();
  EXPECT_EQ(driver_.acceptSession(), kSession);
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
}

TEST_F(AgentCommands, commandThatStopsHalfWayDropsTheConnection) {
  RunningAgent agent(card_, hastyTiming());
  driver_.acceptSession();
  EXPECT_TRUE(driver_.sendNumber(static_cast<std::uint32_t>(AgentCommand::kQueryTransmit)));
  EXPECT_TRUE(driver_.sendNumber(5));
  EXPECT_TRUE(driver_.sendBytes({0x00, 0xA4}));
  EXPECT_TRUE(driver_.waitForDrop());
  EXPECT_TRUE(agent.log().has("error: The driver's command stopped half-way"));
}

TEST(AgentTiming, answersHalfASecondBeforeTheDriverGivesUp) {
  EXPECT_EQ(agent::Timing().driverLimit, std::chrono::milliseconds(5000));
  EXPECT_EQ(agent::Timing().answerLimit, std::chrono::milliseconds(4500));
  EXPECT_EQ(agent::Timing().grace, std::chrono::milliseconds(500));
}

TEST_F(AgentCommands, commandWhoseCodeStopsHalfWayDropsTheConnection) {
  RunningAgent agent(card_, hastyTiming());
  driver_.acceptSession();
  EXPECT_TRUE(driver_.sendBytes({0, 0}));
  EXPECT_TRUE(driver_.waitForDrop());
  EXPECT_TRUE(agent.log().has("error: The driver's command stopped half-way"));
}

TEST_F(AgentCommands, lateResponseIsThrownAwayAndTheNextCommandGetsItsOwn) {
  RunningAgent agent(card_, hastyTiming());
  driver_.acceptSession();
  card_.hold();
  EXPECT_EQ(driver_.transmit(kSelect), kLateResponse);
  EXPECT_TRUE(agent.log().has("warning: Transmit 00A40400 (4 bytes): the card is not done"));
  EXPECT_TRUE(driver_.sendTransmit(kSelect));
  card_.letGo();
  EXPECT_EQ(driver_.readAnswer(), heldAnswer(2));  // number 1 came late
}

TEST_F(AgentCommands, lateAtrIsAnsweredWithLengthZeroAndTheCardReported) {
  card_.hold();
  RunningAgent agent(card_, hastyTiming());
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), kNothing);
  EXPECT_EQ(driver_.readEvent(), event(AgentEvent::kCardInserted));
  card_.letGo();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
}

TEST_F(AgentCommands, lateCardPulledAndPutInAgainAnswersTheNewOnesCommand) {
  RunningAgent agent(card_, hastyTiming());
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  card_.hold();
  EXPECT_EQ(driver_.transmit(kSelect), kLateResponse);
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(agent.agent().insertCard(), "");
  EXPECT_TRUE(driver_.sendTransmit(kSelect));
  card_.letGo();
  EXPECT_EQ(driver_.readAnswer(), heldAnswer(2));
}

TEST_F(AgentCommands, cardPulledWhileACommandRunsIsReportedAndAnsweredWithLengthZero) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  card_.hold();
  EXPECT_TRUE(driver_.sendTransmit(kSelect));
  card_.waitUntilBusy();
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver_.readAnswer(), kNothing);
  EXPECT_EQ(driver_.readEvent(), event(AgentEvent::kCardRemoved));
}

TEST_F(AgentCommands, cardPulledWhileItsAtrIsAskedIsAnsweredWithLengthZero) {
  card_.hold();
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_TRUE(driver_.sendNumber(static_cast<std::uint32_t>(AgentCommand::kQueryAtrReset)));
  card_.waitUntilBusy();
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver_.readAnswer(), kNothing);
}

}  // namespace
}  // namespace zelta::test
