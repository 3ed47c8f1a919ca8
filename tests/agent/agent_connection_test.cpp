// Connecting, losing the driver at every point, and ending at every point.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "tests/agent/driver_end.h"
#include "tests/agent/held_card.h"
#include "tests/agent/running_agent.h"
#include "tests/support/pipe_client.h"

namespace zelta::test {
namespace {

using agent::Bytes;

const Bytes kSelect = {0x00, 0xA4, 0x04, 0x00};

constexpr auto kTransmitCode = static_cast<std::uint32_t>(AgentCommand::QueryTransmit);
constexpr auto kResetCode = static_cast<std::uint32_t>(AgentCommand::QueryAtrReset);

class AgentConnection : public testing::Test {
 protected:
  PipeFolder folder_;
  HeldCard card_;
};

void expectServed(DriverEnd& driver) {
  EXPECT_EQ(driver.acceptSession(), kSession);
  EXPECT_EQ(driver.queryAtr(AgentCommand::QueryAtrReset), heldAtr());
}

TEST_F(AgentConnection, waitsForADriverWhoseFoldersDoNotExistYet) {
  RunningAgent agent(card_);
  agent.log().waitFor("info: Waiting for the driver: ");
  DriverEnd driver;
  expectServed(driver);
  agent.waitConnected(true);
}

TEST_F(AgentConnection, connectsToADriverThatWasThereFirst) {
  DriverEnd driver;
  RunningAgent agent(card_);
  expectServed(driver);
}

TEST_F(AgentConnection, connectsAgainAfterEachDisconnect) {
  DriverEnd driver;
  RunningAgent agent(card_);
  for (int round = 0; round < 50; ++round) {
    expectServed(driver);
    driver.disconnect();
  }
}

TEST_F(AgentConnection, connectsToEachNewDriver) {
  RunningAgent agent(card_);
  for (int round = 0; round < 20; ++round) {
    DriverEnd driver;
    expectServed(driver);
  }
}

TEST_F(AgentConnection, losesBothPipesWhenTheEventPipeIsLost) {
  DriverEnd driver;
  RunningAgent agent(card_);
  driver.acceptSession();
  driver.disconnectEvents();
  EXPECT_TRUE(driver.waitForDrop());
}

TEST_F(AgentConnection, driverThatWritesToTheEventPipeIsDropped) {
  DriverEnd driver;
  RunningAgent agent(card_);
  driver.acceptSession();
  EXPECT_TRUE(driver.writeToEventPipe({0}));
  EXPECT_TRUE(driver.waitForDrop());
  EXPECT_TRUE(agent.log().has("error: The driver wrote to the event pipe"));
}

// Where the driver ends; each leaves the agent at another point of its work.
struct EndPoint {
  const char* name;
  std::function<void(DriverEnd& driver, HeldCard& card)> advance;
};

void PrintTo(const EndPoint& point, std::ostream* out) { *out << point.name; }

class DriverEnds : public AgentConnection, public testing::WithParamInterface<EndPoint> {};

TEST_P(DriverEnds, nextDriverIsServed) {
  RunningAgent agent(card_);
  {
    DriverEnd driver;
    GetParam().advance(driver, card_);
  }
  card_.letGo();
  DriverEnd driver;
  expectServed(driver);
}

TEST_P(DriverEnds, sameDriverIsServedAfterItsDisconnect) {
  RunningAgent agent(card_);
  DriverEnd driver;
  GetParam().advance(driver, card_);
  driver.disconnect();
  card_.letGo();
  expectServed(driver);
}

TEST_P(DriverEnds, agentEndsAtThisPoint) {
  RunningAgent agent(card_);
  DriverEnd driver;
  GetParam().advance(driver, card_);
  agent.stop();
}

INSTANTIATE_TEST_SUITE_P(
    Points, DriverEnds,
    testing::Values(
        EndPoint{"beforeItAccepts", [](DriverEnd&, HeldCard&) {}},
        EndPoint{"afterItAccepted", [](DriverEnd& driver, HeldCard&) { driver.accept(); }},
        EndPoint{"afterTheSessionId", [](DriverEnd& driver, HeldCard&) { driver.acceptSession(); }},
        EndPoint{"insideACode",
                 [](DriverEnd& driver, HeldCard&) {
                   driver.acceptSession();
                   driver.sendBytes({2, 0});
                 }},
        EndPoint{"afterATransmitsCode",
                 [](DriverEnd& driver, HeldCard&) {
                   driver.acceptSession();
                   driver.sendNumber(kTransmitCode);
                 }},
        EndPoint{"insideAnApdu",
                 [](DriverEnd& driver, HeldCard&) {
                   driver.acceptSession();
                   driver.sendNumber(kTransmitCode);
                   driver.sendNumber(5);
                   driver.sendBytes({0x00, 0xA4});
                 }},
        EndPoint{"whileTheCardWorks",
                 [](DriverEnd& driver, HeldCard& card) {
                   driver.acceptSession();
                   card.hold();
                   driver.sendTransmit(kSelect);
                   card.waitUntilBusy();
                 }},
        EndPoint{"whileTheAtrIsAsked",
                 [](DriverEnd& driver, HeldCard& card) {
                   card.hold();
                   driver.accept();
                   driver.sendNumber(kResetCode);
                   card.waitUntilBusy();
                 }},
        EndPoint{"beforeItReadsTheAnswer",
                 [](DriverEnd& driver, HeldCard&) {
                   driver.acceptSession();
                   driver.sendTransmit(kSelect);
                 }},
        EndPoint{"afterAnAnswer",
                 [](DriverEnd& driver, HeldCard&) {
                   driver.acceptSession();
                   driver.transmit(kSelect);
                 }}),
    [](const testing::TestParamInfo<EndPoint>& tested) { return tested.param.name; });

TEST_F(AgentConnection, secondAgentIsRefusedAndTakesOverWhenTheFirstEnds) {
  DriverEnd driver;
  RunningAgent first(card_);
  expectServed(driver);
  HeldCard otherCard;
  RunningAgent second(otherCard);
  second.log().waitFor("warning: The driver is gone, or serves another agent: ");
  EXPECT_EQ(driver.transmit(kSelect), heldAnswer(1));
  // One line, however often it has tried. Later the pipes come free one after the other.
  EXPECT_EQ(second.log().count("serves another agent"), 1u);
  first.stop();
  EXPECT_TRUE(driver.waitForDrop());
  driver.disconnect();
  expectServed(driver);
}

TEST_F(AgentConnection, driverThatHoldsADeadClientIsSetRight) {
  DriverEnd driver;
  PipeClient dead;
  PipeClient deadEvents;
  ASSERT_TRUE(dead.connect(commandPipeName(0)));
  ASSERT_TRUE(deadEvents.connect(eventPipeName(0)));
  driver.accept();
  driver.disconnectEvents();  // the command pipe keeps its client, which goes
  dead.close();
  agent::Timing timing = patientTiming();
  timing.hold = std::chrono::milliseconds(20);
  RunningAgent agent(card_, timing);
  // The agent can have the event pipe only, and gives it back: the driver sees its end.
  std::optional<std::uint32_t> seen = event(AgentEvent::CardInserted);
  while (seen) {
    driver.acceptEvents();
    seen = driver.readEvent();
  }
  driver.disconnect();
  expectServed(driver);
}

TEST_F(AgentConnection, endsWhileNoDriverIsThere) {
  RunningAgent agent(card_);
  agent.log().waitFor("Waiting for the driver");
  agent.stop();
}

TEST_F(AgentConnection, endsWhileTheDriverRefuses) {
  DriverEnd driver;
  RunningAgent first(card_);
  expectServed(driver);
  HeldCard otherCard;
  RunningAgent second(otherCard);
  second.log().waitFor("serves another agent");
  second.stop();
  EXPECT_EQ(driver.transmit(kSelect), heldAnswer(1));
}

TEST_F(AgentConnection, statusTellsOfDriverAndCard) {
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
