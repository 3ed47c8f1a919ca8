// The event pipe: the session id, and which arrivals and departures are reported.
//
// That something is not reported shows in what comes next on the pipe.
#include <gtest/gtest.h>

#include "tests/agent/driver_end.h"
#include "tests/agent/held_card.h"
#include "tests/agent/running_agent.h"

namespace zelta::test {
namespace {

using agent::Bytes;

const auto kInserted = event(AgentEvent::CardInserted);
const auto kRemoved = event(AgentEvent::CardRemoved);

agent::Timing graceless() {
  agent::Timing timing = patientTiming();
  timing.grace = std::chrono::milliseconds(0);
  return timing;
}

class AgentReports : public testing::Test {
 protected:
  PipeFolder folder_;
  HeldCard card_;
  DriverEnd driver_;
};

TEST_F(AgentReports, sessionIdComesFirstOnEachConnection) {
  RunningAgent agent(card_);
  EXPECT_EQ(driver_.acceptSession(), kSession);
  driver_.disconnect();
  EXPECT_EQ(driver_.acceptSession(), kSession);
}

TEST_F(AgentReports, cardLearnedThroughItsAtrIsNotReported) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::QueryAtrReset), heldAtr());
  EXPECT_TRUE(driver_.notifyReady());
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver_.readEvent(), kRemoved);
}

TEST_F(AgentReports, cardThatTheFirstCommandDidNotAskForIsReported) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_TRUE(driver_.notifyReady());
  EXPECT_EQ(driver_.readEvent(), kInserted);
}

TEST_F(AgentReports, cardThatWasMuteAtTheFirstCommandIsReported) {
  card_.setMute(true);
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::QueryAtrReset), Bytes());
  EXPECT_EQ(driver_.readEvent(), kInserted);
}

TEST_F(AgentReports, cardIsReportedWhenNoCommandComesAtAll) {
  RunningAgent agent(card_, graceless());
  driver_.acceptSession();
  EXPECT_EQ(driver_.readEvent(), kInserted);
}

TEST_F(AgentReports, graceDoesNotBeginBeforeTheDriverListensForEvents) {
  RunningAgent agent(card_, graceless());
  driver_.accept();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::QueryAtrReset), heldAtr());
  EXPECT_EQ(driver_.readSessionId(), kSession);
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver_.readEvent(), kRemoved);
}

TEST_F(AgentReports, cardThatArrivesBeforeTheFirstCommandIsLearnedByIt) {
  HeldCard outside(false);
  RunningAgent agent(outside);
  driver_.acceptSession();
  EXPECT_EQ(agent.agent().insertCard(), "");
  EXPECT_EQ(driver_.queryAtr(AgentCommand::QueryAtrReset), heldAtr());
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver_.readEvent(), kRemoved);
}

TEST_F(AgentReports, arrivalAfterTheFirstCommandIsReportedAtOnce) {
  HeldCard outside(false);
  RunningAgent agent(outside);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::QueryAtrReset), Bytes());
  EXPECT_EQ(agent.agent().insertCard(), "");
  EXPECT_EQ(driver_.readEvent(), kInserted);
  EXPECT_EQ(driver_.queryAtr(AgentCommand::QueryAtrReset), heldAtr());
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver_.readEvent(), kRemoved);
}

TEST_F(AgentReports, cardThatTheDriverNeverKnewIsNotReportedGone) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver_.queryAtr(AgentCommand::QueryAtrReset), Bytes());
  EXPECT_EQ(agent.agent().insertCard(), "");
  EXPECT_EQ(driver_.readEvent(), kInserted);
}

TEST_F(AgentReports, everyConnectionLearnsAnew) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::QueryAtrReset), heldAtr());
  driver_.disconnect();
  driver_.acceptSession();
  EXPECT_TRUE(driver_.notifyReady());
  EXPECT_EQ(driver_.readEvent(), kInserted);
}

TEST_F(AgentReports, cardPulledBetweenConnectionsIsNotReported) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::QueryAtrReset), heldAtr());
  driver_.disconnect();
  agent.waitConnected(false);
  EXPECT_EQ(agent.agent().removeCard(), "");
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::QueryAtrReset), Bytes());
  EXPECT_EQ(agent.agent().insertCard(), "");
  EXPECT_EQ(driver_.readEvent(), kInserted);
}

TEST_F(AgentReports, hundredsOfSwapsAreReportedInTurns) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::QueryAtrReset), heldAtr());
  for (int swap = 0; swap < 300; ++swap) {
    ASSERT_EQ(agent.agent().removeCard(), "");
    ASSERT_EQ(agent.agent().insertCard(), "");
    ASSERT_EQ(driver_.readEvent(), kRemoved);
    ASSERT_EQ(driver_.readEvent(), kInserted);
  }
}

TEST_F(AgentReports, eventsThatTheDriverDoesNotReadYetKeepTheirOrder) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::QueryAtrReset), heldAtr());
  for (int swap = 0; swap < 50; ++swap) {
    ASSERT_EQ(agent.agent().removeCard(), "");
    ASSERT_EQ(agent.agent().insertCard(), "");
  }
  for (int swap = 0; swap < 50; ++swap) {
    ASSERT_EQ(driver_.readEvent(), kRemoved);
    ASSERT_EQ(driver_.readEvent(), kInserted);
  }
}

TEST_F(AgentReports, commandsAreAnsweredWhileTheDriverReadsNoEvents) {
  RunningAgent agent(card_);
  driver_.accept();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::QueryAtrReset), heldAtr());
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver_.transmit({0x00, 0xA4, 0x04, 0x00}), Bytes());
  EXPECT_EQ(driver_.readSessionId(), kSession);
  EXPECT_EQ(driver_.readEvent(), kRemoved);
}

}  // namespace
}  // namespace zelta::test
