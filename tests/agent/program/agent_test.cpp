// Stories of the whole agent over the real pipes: connecting, losing the driver at every point,
// ending at every point.
#include "agent/program/agent.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <ostream>
#include <thread>

#include "contract/wire.h"
#include "tests/agent/running_agent.h"
#include "tests/doubles/agent/driver_end.h"
#include "tests/doubles/agent/held_card.h"
#include "tests/support/pipe_client.h"
#include "tests/support/system.h"

namespace zelta::test {
namespace {

const Bytes kSelect = {0x00, 0xA4, 0x04, 0x00};
constexpr auto kInserted = static_cast<std::uint32_t>(AgentEvent::kCardInserted);
constexpr auto kRemoved = static_cast<std::uint32_t>(AgentEvent::kCardRemoved);
constexpr auto kTransmitCode = static_cast<std::uint32_t>(AgentCommand::kQueryTransmit);
constexpr auto kResetCode = static_cast<std::uint32_t>(AgentCommand::kQueryAtrReset);

class AgentTest : public testing::Test {
 protected:
  static void expectServed(DriverEnd& driver) {
    EXPECT_EQ(driver.acceptSession(), kSession);
    EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  }

  PipeFolder folder_;
  HeldCard card_;
};

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

TEST_F(AgentTest, DriverThatDisconnectsAgainAndAgain_IsServedEachTime) {
  DriverEnd driver;
  RunningAgent agent(card_);
  for (int round = 0; round < 50; ++round) {
    expectServed(driver);
    driver.disconnect();
  }
}

TEST_F(AgentTest, EachNewDriver_IsServed) {
  RunningAgent agent(card_);
  for (int round = 0; round < 20; ++round) {
    DriverEnd driver;
    expectServed(driver);
  }
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

TEST_F(AgentTest, UnknownCommand_DropsTheConnectionAndConnectsAgain) {
  DriverEnd driver;
  RunningAgent agent(card_);
  driver.acceptSession();
  EXPECT_TRUE(driver.sendNumber(4));
  EXPECT_TRUE(driver.waitForDrop());
  driver.disconnect();
  expectServed(driver);
}

TEST_F(AgentTest, SecondAgent_IsRefusedAndTakesOverWhenTheFirstEnds) {
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

// The driver notices the end of a client that only opened the command pipe when the next agent
// gives the event pipe back. An agent that holds it for a second is never quick; one that does not
// may only be slow for the machine's load.
TEST_F(AgentTest, ClientOfTheCommandPipeAlone_CostsTheNextAgentLittle) {
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

void PrintTo(const Point& point, std::ostream* out) { *out << point.name; }

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

TEST_P(EndingAt, AgentStops_ItEnds) {
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

TEST_F(AgentTest, NoDriverIsThere_AgentStops) {
  RunningAgent agent(card_);
  agent.log().waitFor("Waiting for the driver");
  agent.stop();
}

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

// --- An answer that the driver has given up: no byte of it is followed by another's ---

class GivenUp : public AgentTest, public testing::WithParamInterface<bool> {
 protected:
  bool send(DriverEnd& driver) {
    return GetParam() ? driver.sendTransmit(kSelect) : driver.sendNumber(kResetCode);
  }
  // Whatever is left of the first answer is all that there is, and the next connection is served.
  void expectDropped(DriverEnd& driver, RunningAgent& agent, const Bytes& answer) {
    const Bytes rest = driver.takeRest();
    ASSERT_LE(rest.size(), answer.size());
    EXPECT_EQ(rest, Bytes(answer.end() - static_cast<std::ptrdiff_t>(rest.size()), answer.end()));
    EXPECT_TRUE(agent.log().has(
        "error: The driver does not wait for its answer any more; dropping the connection"));
    driver.disconnect();
    card_.letGo();
    expectServed(driver);
  }

  const Bytes answer_ =
      GetParam() ? Bytes{3, 0, 0, 0, 0x01, 0x90, 0x00} : Bytes{2, 0, 0, 0, 0x3B, 0x00};
};

TEST_P(GivenUp, CommandBeforeTheAnswerIsRead_DropsTheConnection) {
  DriverEnd driver;
  RunningAgent agent(card_);
  driver.acceptSession();
  ASSERT_TRUE(send(driver));
  driver.sendTransmit(kSelect);
  expectDropped(driver, agent, answer_);
}

TEST_P(GivenUp, NotificationAfterAPartOfTheAnswer_DropsTheConnection) {
  DriverEnd driver;
  RunningAgent agent(card_);
  driver.acceptSession();
  ASSERT_TRUE(send(driver));
  EXPECT_NE(driver.readAnswerLength(), std::nullopt);
  driver.notifyReady();
  expectDropped(driver, agent, answer_);
  EXPECT_EQ(card_.readyNotices(), 0);
}

TEST_P(GivenUp, CommandWhileTheCardWorks_DropsTheConnectionUnanswered) {
  DriverEnd driver;
  RunningAgent agent(card_);
  driver.acceptSession();
  card_.hold();
  ASSERT_TRUE(send(driver));
  card_.waitUntilBusy();
  auto next = std::async(std::launch::async, [&] { return driver.sendTransmit(kSelect); });
  if (kPipesKeepBytes) next.wait();
  card_.letGo();
  next.wait();
  expectDropped(driver, agent, {});
}

TEST_P(GivenUp, NotificationBeforeALateAnswerIsRead_DropsTheConnection) {
  agent::Timing timing = patientTiming();
  timing.answerLimit = std::chrono::seconds(1);  // in which a whole transmit comes
  DriverEnd driver;
  RunningAgent agent(card_, timing);
  driver.acceptSession();
  card_.hold();
  ASSERT_TRUE(send(driver));
  agent.log().waitFor("the card is not done in time");
  driver.notifyReady();
  expectDropped(driver, agent, GetParam() ? Bytes{2, 0, 0, 0, 0x6F, 0x00} : Bytes{0, 0, 0, 0});
}

INSTANTIATE_TEST_SUITE_P(Queries, GivenUp, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& tested) {
                           return tested.param ? "Transmit" : "Atr";
                         });

TEST_F(AgentTest, CommandsRightAfterNotifications_AreAnswered) {
  DriverEnd driver;
  RunningAgent agent(card_);
  driver.acceptSession();
  for (std::uint8_t round = 1; round < 100; ++round) {
    ASSERT_TRUE(driver.notifyReady());
    ASSERT_EQ(driver.transmit(kSelect), heldAnswer(round));
  }
}

// --- The card comes and goes ---

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

TEST_F(AgentTest, EveryConnection_LearnsOfTheCardAnew) {
  DriverEnd driver;
  RunningAgent agent(card_);
  expectServed(driver);
  driver.disconnect();
  driver.acceptSession();
  EXPECT_TRUE(driver.notifyReady());
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

TEST_F(AgentTest, HundredsOfSwaps_AreReportedInTurns) {
  DriverEnd driver;
  RunningAgent agent(card_);
  expectServed(driver);
  for (int swap = 0; swap < 300; ++swap) {
    ASSERT_EQ(agent.agent().removeCard(), "");
    ASSERT_EQ(agent.agent().insertCard(), "");
    ASSERT_EQ(driver.readEvent(), kRemoved);
    ASSERT_EQ(driver.readEvent(), kInserted);
  }
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
  std::size_t events =
      agent.log().count("Card removal reported") + agent.log().count("Card insertion reported");
  EXPECT_EQ(events % 2, 1u);
  for (std::uint32_t expected = kRemoved; events > 0; --events) {
    ASSERT_EQ(driver.readEvent(), expected);
    expected = expected == kRemoved ? kInserted : kRemoved;
  }
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
