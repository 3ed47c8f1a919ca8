// An answer that the driver has given up: no byte of another answer follows it.

#include "tests/agent/program/agent_fixture.h"

namespace zelta::test {
namespace {

class GivenUp : public AgentTest, public testing::WithParamInterface<bool> {
 protected:
  bool send(DriverEnd& driver) {
    return GetParam() ? driver.sendTransmit(kSelect) : driver.sendNumber(kResetCode);
  }
  // The pipe holds at most the rest of the first answer, and the next connection is served.
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

TEST_P(GivenUp, NotificationBeforeALateAnswerIsRead_DropsTheConnection) {
  agent::Timing timing = patientTiming();
  timing.answerLimit = std::chrono::seconds(1);  // time for a whole transmit
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

}  // namespace
}  // namespace zelta::test
