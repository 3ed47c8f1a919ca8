// A driver that has given up on an answer shows it by its next command: the agent drops the
// connection, and no byte of the old answer is followed by another's.
#include <gtest/gtest.h>

#include <future>
#include <ostream>

#include "contract/bytes.h"
#include "contract/wire.h"
#include "tests/agent/card/held_card.h"
#include "tests/agent/link/driver_end.h"
#include "tests/agent/program/running_agent.h"
#include "tests/support/system.h"

namespace zelta::test {
namespace {

const Bytes kSelect = {0x00, 0xA4, 0x04, 0x00};
constexpr char kNoticed[] =
    "error: The driver does not wait for its answer any more; dropping the connection";

struct Query {
  const char* name;
  AgentCommand command;
  Bytes answer;  // with its length
};

void PrintTo(const Query& query, std::ostream* out) { *out << query.name; }

const Query kQueries[] = {
    {"AtrWithReset", AgentCommand::kQueryAtrReset, {2, 0, 0, 0, 0x3B, 0x00}},
    {"Atr", AgentCommand::kQueryAtr, {2, 0, 0, 0, 0x3B, 0x00}},
    {"Transmit", AgentCommand::kQueryTransmit, {3, 0, 0, 0, 0x01, 0x90, 0x00}},
};

class GivenUp : public testing::TestWithParam<Query> {
 protected:
  // False where the agent has dropped the connection.
  bool send() {
    if (GetParam().command == AgentCommand::kQueryTransmit) return driver_.sendTransmit(kSelect);
    return driver_.sendNumber(static_cast<std::uint32_t>(GetParam().command));
  }

  // Whatever is left of the first answer is all that there is, and the next agent is served.
  void expectDropped(RunningAgent& agent) {
    const Bytes rest = driver_.takeRest();
    const Bytes& answer = GetParam().answer;
    ASSERT_LE(rest.size(), answer.size());
    EXPECT_EQ(rest, Bytes(answer.end() - static_cast<std::ptrdiff_t>(rest.size()), answer.end()));
    EXPECT_TRUE(agent.log().has(kNoticed));
    driver_.disconnect();
    EXPECT_EQ(driver_.acceptSession(), kSession);
    EXPECT_EQ(driver_.queryAtr(AgentCommand::kQueryAtrReset), heldAtr());
  }

  PipeFolder folder_;
  HeldCard card_;
  DriverEnd driver_;
};

TEST_P(GivenUp, CommandBeforeTheAnswerIsRead_DropsTheConnection) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  ASSERT_TRUE(send());
  driver_.sendTransmit(kSelect);
  expectDropped(agent);
}

TEST_P(GivenUp, CommandAfterAPartOfTheAnswer_DropsTheConnection) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  ASSERT_TRUE(send());
  EXPECT_NE(driver_.readAnswerLength(), std::nullopt);
  driver_.sendTransmit(kSelect);
  expectDropped(agent);
}

TEST_P(GivenUp, NotificationBeforeTheAnswerIsRead_DropsTheConnection) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  ASSERT_TRUE(send());
  EXPECT_NE(driver_.readAnswerLength(), std::nullopt);
  driver_.notifyReady();
  expectDropped(agent);
  EXPECT_EQ(card_.readyNotices(), 0);
}

TEST_P(GivenUp, CommandWhileTheCardWorks_DropsTheConnectionUnanswered) {
  RunningAgent agent(card_);
  driver_.acceptSession();
  card_.hold();
  ASSERT_TRUE(send());
  card_.waitUntilBusy();
  auto next = std::async(std::launch::async, [this] { return driver_.sendTransmit(kSelect); });
  if (kPipesKeepBytes) next.wait();
  card_.letGo();
  next.wait();
  EXPECT_EQ(driver_.takeRest(), Bytes());
  expectDropped(agent);
}

// The card is late, and the driver gives up before it has read what the agent answers instead.
TEST_P(GivenUp, CommandBeforeALateAnswerIsRead_DropsTheConnection) {
  agent::Timing timing = patientTiming();
  timing.answerLimit = std::chrono::seconds(1);  // in which a whole transmit comes
  RunningAgent agent(card_, timing);
  driver_.acceptSession();
  card_.hold();
  ASSERT_TRUE(send());
  agent.log().waitFor("the card is not done in time");
  driver_.notifyReady();
  const Bytes rest = driver_.takeRest();
  const bool late = rest == Bytes{0, 0, 0, 0} || rest == Bytes{2, 0, 0, 0, 0x6F, 0x00};
  EXPECT_TRUE(rest.empty() || late);
  EXPECT_TRUE(agent.log().has(kNoticed));
}

INSTANTIATE_TEST_SUITE_P(Queries, GivenUp, testing::ValuesIn(kQueries),
                         [](const testing::TestParamInfo<Query>& tested) {
                           return tested.param.name;
                         });

TEST(AfterANotification, CommandRightBehindIt_IsAnswered) {
  PipeFolder folder;
  HeldCard card;
  DriverEnd driver;
  RunningAgent agent(card);
  driver.acceptSession();
  for (std::uint8_t round = 1; round < 100; ++round) {
    ASSERT_TRUE(driver.notifyReady());
    ASSERT_EQ(driver.transmit(kSelect), heldAnswer(round));
  }
}

}  // namespace
}  // namespace zelta::test
