// The whole agent over the system's pipes connects, loses the driver at every point, and ends at
// every point.
#include "agent/program/agent.h"

#include <gtest/gtest.h>

#include <functional>

#include "tests/agent/program/agent_fixture.h"

namespace zelta::test {
namespace {

TEST(AgentTiming, AgentAnswersHalfASecondBeforeTheDriverGivesUp) {
  EXPECT_EQ(agent::Timing().driverLimit, std::chrono::milliseconds(5000));
  EXPECT_EQ(agent::Timing().answerLimit, std::chrono::milliseconds(4500));
  EXPECT_EQ(agent::Timing().grace, std::chrono::milliseconds(500));
}

// --- Connecting ---

TEST_F(AgentTest, DriverWhoseFoldersDoNotExistYet_IsWaitedFor) {
  RunningAgent agent(card_);
  agent.log().waitFor("info: Waiting for the driver: ");
  DriverEnd driver;
  expectServed(driver);
  agent.waitConnected(true);
}

TEST_F(AgentTest, LossOfTheEventPipe_DropsTheCommandPipe) {
  DriverEnd driver;
  RunningAgent agent(card_);
  driver.acceptSession();
  driver.disconnectEvents();
  EXPECT_TRUE(driver.waitForDrop());
}

TEST_F(AgentTest, DriverThatWritesToTheEventPipe_IsDropped) {
  DriverEnd driver;
  RunningAgent agent(card_);
  driver.acceptSession();
  EXPECT_TRUE(driver.writeToEventPipe({0}));
  EXPECT_TRUE(driver.waitForDrop());
  EXPECT_TRUE(agent.log().has("error: The driver wrote to the event pipe; dropping the"));
}

TEST_F(AgentTest, SecondAgent_IsRefusedAndTakesOverWhenTheFirstEnds) {
  DriverEnd driver;
  RunningAgent first(card_);
  expectServed(driver);
  HeldCard otherCard;
  RunningAgent second(otherCard);
  second.log().waitFor("warning: The driver is gone, or serves another agent: ");
  EXPECT_EQ(driver.transmit(kSelect), heldAnswer(1));
  // One line, however often it has tried. Later the pipes become free one after the other.
  EXPECT_EQ(second.log().count("serves another agent"), 1u);
  first.stop();
  EXPECT_TRUE(driver.waitForDrop());
  driver.disconnect();
  expectServed(driver);
}

// Each may get one pipe at first; the driver then loses both and waits again.
TEST_F(AgentTest, AgentsThatStartTogether_DoNotKeepEachOtherOut) {
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

// --- The driver or the agent ends; each point leaves the agent elsewhere in its work ---

struct Point {
  const char* name;
  std::function<void(DriverEnd& driver, HeldCard& card)> advance;
};

class EndingAt : public AgentTest, public testing::WithParamInterface<Point> {};

TEST_P(EndingAt, DriverEnds_NextDriverIsServed) {
  RunningAgent agent(card_);
  {
    DriverEnd driver;
    GetParam().advance(driver, card_);
  }
  card_.letGo();
  DriverEnd driver;
  expectServed(driver);
}

TEST_P(EndingAt, DriverDisconnects_SameDriverIsServed) {
  RunningAgent agent(card_);
  DriverEnd driver;
  GetParam().advance(driver, card_);
  driver.disconnect();
  card_.letGo();
  expectServed(driver);
}

TEST_P(EndingAt, AgentIsStopped_ItsRunEnds) {
  RunningAgent agent(card_);
  DriverEnd driver;
  GetParam().advance(driver, card_);
  agent.stop();
}

void acceptSession(DriverEnd& driver) { driver.acceptSession(); }

INSTANTIATE_TEST_SUITE_P(
    Points, EndingAt,
    testing::Values(Point{"BeforeItAccepts", [](DriverEnd&, HeldCard&) {}},
                    Point{"AfterItAccepted", [](DriverEnd& driver, HeldCard&) { driver.accept(); }},
                    Point{"AfterTheSessionId",
                          [](DriverEnd& driver, HeldCard&) { acceptSession(driver); }},
                    Point{"InsideACode",
                          [](DriverEnd& driver, HeldCard&) {
                            acceptSession(driver);
                            driver.sendBytes({2, 0});
                          }},
                    Point{"AfterATransmitsCode",
                          [](DriverEnd& driver, HeldCard&) {
                            acceptSession(driver);
                            driver.sendNumber(kTransmitCode);
                          }},
                    Point{"InsideAnApdu",
                          [](DriverEnd& driver, HeldCard&) {
                            acceptSession(driver);
                            driver.sendNumber(kTransmitCode);
                            driver.sendNumber(5);
                            driver.sendBytes({0x00, 0xA4});
                          }},
                    Point{"WhileTheCardWorks",
                          [](DriverEnd& driver, HeldCard& card) {
                            acceptSession(driver);
                            card.hold();
                            driver.sendTransmit(kSelect);
                            card.waitUntilBusy();
                          }},
                    Point{"WhileTheAtrIsAsked",
                          [](DriverEnd& driver, HeldCard& card) {
                            card.hold();
                            driver.accept();
                            driver.sendNumber(kResetCode);
                            card.waitUntilBusy();
                          }},
                    Point{"BeforeItReadsTheAnswer",
                          [](DriverEnd& driver, HeldCard&) {
                            acceptSession(driver);
                            driver.sendTransmit(kSelect);
                          }},
                    Point{"AfterAnAnswer",
                          [](DriverEnd& driver, HeldCard&) {
                            acceptSession(driver);
                            driver.transmit(kSelect);
                          }}),
    [](const testing::TestParamInfo<Point>& tested) { return tested.param.name; });

TEST_F(AgentTest, DriverRefuses_AgentStops) {
  DriverEnd driver;
  RunningAgent first(card_);
  expectServed(driver);
  HeldCard otherCard;
  RunningAgent second(otherCard);
  second.log().waitFor("serves another agent");
  second.stop();
  EXPECT_EQ(driver.transmit(kSelect), heldAnswer(1));
}

TEST_F(AgentTest, CardThrows_AgentStopsItself) {
  DriverEnd driver;
  card_.breakDown();
  std::string problem;
  RunningAgent agent(card_, patientTiming(), [&problem](const char* text) { problem = text; });
  driver.acceptSession();
  EXPECT_EQ(driver.transmit(kSelect), std::nullopt);
  agent.join();
  EXPECT_EQ(problem, "the card is broken");
}

}  // namespace
}  // namespace zelta::test
