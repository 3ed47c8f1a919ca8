// The whole agent reports its card to the driver and in its status.
#include <limits>
#include <thread>

#include "tests/agent/program/agent_fixture.h"
#include "tests/support/system.h"

namespace zelta::test {
namespace {

constexpr auto kInserted = static_cast<std::uint32_t>(AgentEvent::kCardInserted);
constexpr auto kRemoved = static_cast<std::uint32_t>(AgentEvent::kCardRemoved);

TEST_F(AgentTest, CardPulledBetweenConnections_IsNotReported) {
  DriverEnd driver;
  RunningAgent agent(card_);
  expectServed(driver);
  driver.disconnect();
  agent.waitConnected(false);
  EXPECT_EQ(agent.agent().removeCard(), "");
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), Bytes());
  EXPECT_EQ(agent.agent().insertCard(), "");
  EXPECT_EQ(driver.readEvent(), kInserted);
}

TEST_F(AgentTest, Grace_DoesNotBeginBeforeTheDriverListensForEvents) {
  agent::Timing timing = patientTiming();
  timing.grace = std::chrono::milliseconds(0);
  DriverEnd driver;
  RunningAgent agent(card_, timing);
  driver.accept();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  EXPECT_EQ(driver.readSessionId(), kSession);
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver.readEvent(), kRemoved);
}

TEST_F(AgentTest, SwapsQuickerThanTheDriverReads_AreReportedInTurnsToTheLast) {
  DriverEnd driver;
  RunningAgent agent(card_);
  expectServed(driver);
  for (int swap = 0; swap < 50; ++swap) {
    ASSERT_EQ(agent.agent().removeCard(), "");
    ASSERT_EQ(agent.agent().insertCard(), "");
  }
  ASSERT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtr), Bytes());  // after all events
  std::size_t events = std::numeric_limits<std::size_t>::max();
  if (kPipesKeepBytes) {
    agent.stop();
  } else {  // an event is logged before the next is handed over, so the last line may be missing
    events =
        agent.log().count("Card removal reported") + agent.log().count("Card insertion reported");
    events |= 1;
  }
  std::uint32_t expected = kRemoved;
  for (; events > 0; --events) {
    const std::optional<std::uint32_t> event = driver.readEvent();
    if (!event && kPipesKeepBytes) break;
    ASSERT_EQ(event, expected);
    expected = expected == kRemoved ? kInserted : kRemoved;
  }
  EXPECT_EQ(expected, kInserted);  // the last was a removal
}

// A driver that handles an insertion asks for the ATR before it reads the next event.
TEST_F(AgentTest, EventPipeThatTakesNoMore_DoesNotHoldUpCommands) {
  // False if the pipe takes no more.
  const auto isReported = [](RunningAgent& agent, const char* line, std::size_t times) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (agent.log().count(line) < times) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::yield();
    }
    return true;
  };
  DriverEnd driver;
  RunningAgent agent(card_);
  expectServed(driver);
  for (std::size_t swaps = 1;; ++swaps) {
    ASSERT_EQ(agent.agent().removeCard(), "");
    if (!isReported(agent, "Card removal reported", swaps)) break;
    ASSERT_EQ(agent.agent().insertCard(), "");
    if (!isReported(agent, "Card insertion reported", swaps)) break;
  }
  const auto begin = std::chrono::steady_clock::now();
  const bool isOut = !agent.agent().status().cardIn;
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), isOut ? Bytes() : heldAtr());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kLong / 2);
  EXPECT_EQ(driver.readEvent(), kRemoved);
  EXPECT_EQ(driver.readEvent(), kInserted);
}

TEST_F(AgentTest, Status_TellsOfDriverAndCard) {
  RunningAgent agent(card_);
  agent::Agent::Status status = agent.agent().status();
  EXPECT_FALSE(status.connected);
  EXPECT_TRUE(status.cardIn);
  EXPECT_EQ(status.atr, Bytes());
  EXPECT_EQ(status.backend, "held");
  EXPECT_EQ(status.sessionId, kSession);
  DriverEnd driver;
  expectServed(driver);
  agent.waitConnected(true);
  status = agent.agent().status();
  EXPECT_TRUE(status.connected);
  EXPECT_EQ(status.atr, heldAtr());
  EXPECT_EQ(agent.agent().removeCard(), "");
  EXPECT_EQ(agent.agent().removeCard(), "no card is in");
  status = agent.agent().status();
  EXPECT_FALSE(status.cardIn);
  EXPECT_EQ(status.atr, Bytes());
  driver.disconnect();
  agent.waitConnected(false);
}

}  // namespace
}  // namespace zelta::test
