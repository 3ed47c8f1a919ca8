// Connecting, losing the driver at every point, and ending at every point.
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>

#include "contract/bytes.h"
#include "contract/wire.h"
#include "tests/agent/card/held_card.h"
#include "tests/agent/link/driver_end.h"
#include "tests/agent/program/running_agent.h"
#include "tests/support/pipe_client.h"

namespace zelta::test {
namespace {

const Bytes kSelect = {0x00, 0xA4, 0x04, 0x00};

constexpr auto kTransmitCode = static_cast<std::uint32_t>(AgentCommand::kQueryTransmit);
constexpr auto kResetCode = static_cast<std::uint32_t>(AgentCommand::kQueryAtrReset);

class AgentConnection : public testing::Test {
 protected:
  PipeFolder folder_;
  HeldCard card_;
};

void expectServed(DriverEnd& driver) {
  EXPECT_EQ(driver.acceptSession(), kSession);
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
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

// The driver sees the end of a client that only opened the command pipe when the next agent gives
// the event pipe back. An agent that holds it for a second is never quick; one that does not may
// only be slow for the machine's load.
TEST_F(AgentConnection, clientOfTheCommandPipeAloneCostsTheNextAgentLittle) {
  bool quick = false;
  for (int round = 0; round < 10 && !quick; ++round) {
    DriverEnd driver;
    PipeClient lone;
    ASSERT_TRUE(lone.connect(commandPipeName(0)));
    driver.acceptCommands();
    lone.close();
    const auto begin = std::chrono::steady_clock::now();
    RunningAgent agent(card_);
    driver.acceptEvents();
    EXPECT_EQ(driver.readEvent(), std::nullopt);
    driver.disconnect();
    expectServed(driver);
    quick = std::chrono::steady_clock::now() - begin < std::chrono::seconds(1);
  }
  EXPECT_TRUE(quick);
}

// Each may get one pipe at first; the driver then loses both and waits again.
TEST_F(AgentConnection, agentsThatStartTogetherDoNotKeepEachOtherOut) {
  HeldCard otherCard;
  for (int round = 0; round < 10; ++round) {
    DriverEnd driver;
    RunningAgent first(card_);
    RunningAgent second(otherCard);
    EXPECT_EQ(driver.acceptSession(), kSession);
    while (driver.queryAtr(AgentCommand::kQueryAtrReset) != heldAtr()) {
      driver.disconnect();
      EXPECT_EQ(driver.acceptSession(), kSession);
    }
  }
}

class BrokenCard : public HeldCard {
 public:
  Bytes transmit(const Bytes&) override { throw std::runtime_error("the card is broken"); }
};

TEST_F(AgentConnection, agentWhoseCardThrowsStopsItself) {
  DriverEnd driver;
  BrokenCard card;
  LogLines lines;
  agent::Log log(agent::LogLevel::kDebug, lines.sink());
  const std::unique_ptr<agent::PipeClientPort> pipes = agent::makeSystemPipeClient();
  std::string problem;
  agent::Agent::Settings settings;
  settings.onFailure = [&problem](const char* text) { problem = text; };
  agent::Agent agent(*pipes, card, settings, log);
  agent.start();
  auto ran = std::async(std::launch::async, [&agent] { agent.run(); });
  driver.acceptSession();
  EXPECT_EQ(driver.transmit(kSelect), std::nullopt);
  ran.get();
  EXPECT_EQ(problem, "the card is broken");
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
