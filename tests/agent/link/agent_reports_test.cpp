// The event pipe: the session id, and which arrivals and departures are reported.
//
// That something is not reported shows in what comes next on the pipe.
#include <gtest/gtest.h>

#include <thread>

#include "contract/bytes.h"
#include "contract/wire.h"
#include "tests/agent/card/held_card.h"
#include "tests/agent/link/driver_end.h"
#include "tests/agent/program/running_agent.h"

namespace zelta::test {
namespace {

const auto kInserted = event(AgentEvent::kCardInserted);
const auto kRemoved = event(AgentEvent::kCardRemoved);

agent::Timing graceless() {
  agent::Timing timing = patientTiming();
  timing.grace = std::chrono::milliseconds(0);
  return timing;
}

class AgentReports : public testing::Test {
 protected:
  static void swapAndRemove(RunningAgent& agent, int swaps) {
    for (int swap = 0; swap < swaps; ++swap) {
      ASSERT_EQ(agent.agent().removeCard(), "");
      ASSERT_EQ(agent.agent().insertCard(), "");
    }
    ASSERT_EQ(agent.agent().removeCard(), "");
  }
  // False if the pipe takes no more.
  static bool isReported(RunningAgent& agent, const std::string& line, std::size_t times) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (agent.log().count(line) < times) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::yield();
    }
    return true;
  }
  // Everything that the agent has handed over.
  void expectTurnsThatEndWithARemoval(RunningAgent& agent) {
    const std::size_t events =
        agent.log().count("Card removal reported") + agent.log().count("Card insertion reported");
    std::optional<std::uint32_t> last = kInserted;
    for (std::size_t event = 0; event < events; ++event) {
      const std::optional<std::uint32_t> next = driver_.readEvent();
      ASSERT_EQ(next, last == kInserted ? kRemoved : kInserted);
      last = next;
    }
    EXPECT_EQ(last, kRemoved);
  }

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
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
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
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), Bytes());
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
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  EXPECT_EQ(driver_.readSessionId(), kSession);
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver_.readEvent(), kRemoved);
}

TEST_F(AgentReports, cardThatArrivesBeforeTheFirstCommandIsLearnedByIt) {
  HeldCard outside(false);
  RunningAgent agent(outside);
  driver_.acceptSession();
  EXPECT_EQ(agent.agent().insertCard(), "");
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver_.readEvent(), kRemoved);
}

TEST_F(AgentReports, arrivalAfterTheFirstCommandIsReportedAtOnce) {
  HeldCard outside(false);
  RunningAgent agent(outside);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), Bytes());
  EXPECT_EQ(agent.agent().insertCard(), "");
  EXPECT_EQ(driver_.readEvent(), kInserted);
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver_.readEvent(), kRemoved);
}

TEST_F(AgentReports, cardThatTheDriverNeverKnewIsNotReportedGone) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), Bytes());
  EXPECT_EQ(agent.agent().insertCard(), "");
  EXPECT_EQ(driver_.readEvent(), kInserted);
}

TEST_F(AgentReports, everyConnectionLearnsAnew) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  driver_.disconnect();
  driver_.acceptSession();
  EXPECT_TRUE(driver_.notifyReady());
  EXPECT_EQ(driver_.readEvent(), kInserted);
}

TEST_F(AgentReports, cardPulledBetweenConnectionsIsNotReported) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  driver_.disconnect();
  agent.waitConnected(false);
  EXPECT_EQ(agent.agent().removeCard(), "");
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), Bytes());
  EXPECT_EQ(agent.agent().insertCard(), "");
  EXPECT_EQ(driver_.readEvent(), kInserted);
}

TEST_F(AgentReports, hundredsOfSwapsAreReportedInTurns) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  for (int swap = 0; swap < 300; ++swap) {
    ASSERT_EQ(agent.agent().removeCard(), "");
    ASSERT_EQ(agent.agent().insertCard(), "");
    ASSERT_EQ(driver_.readEvent(), kRemoved);
    ASSERT_EQ(driver_.readEvent(), kInserted);
  }
}

TEST_F(AgentReports, cardsThatChangeQuickerThanTheDriverReadsAreReportedInTurnsToTheLast) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  swapAndRemove(agent, 50);
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtr), Bytes());  // after all events
  expectTurnsThatEndWithARemoval(agent);
}

TEST_F(AgentReports, commandsAreAnsweredWhileTheDriverReadsNoEvents) {
  RunningAgent agent(card_);
  driver_.accept();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver_.transmit({0x00, 0xA4, 0x04, 0x00}), Bytes());
  EXPECT_EQ(driver_.readSessionId(), kSession);
  EXPECT_EQ(driver_.readEvent(), kRemoved);
}

// A driver that handles an insertion asks for the ATR before it reads the next event.
TEST_F(AgentReports, commandsAreAnsweredWhileTheEventPipeTakesNoMore) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  for (std::size_t swaps = 1;; ++swaps) {
    ASSERT_EQ(agent.agent().removeCard(), "");
    if (!isReported(agent, "Card removal reported", swaps)) break;
    ASSERT_EQ(agent.agent().insertCard(), "");
    if (!isReported(agent, "Card insertion reported", swaps)) break;
  }
  const auto begin = std::chrono::steady_clock::now();
  const bool isOut = !agent.agent().status().cardIn;
  EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), isOut ? Bytes() : heldAtr());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kLong / 2);
  EXPECT_EQ(driver_.readEvent(), kRemoved);
  EXPECT_EQ(driver_.readEvent(), kInserted);
}

}  // namespace
}  // namespace zelta::test
