// The reader and the product's own agent on pipes that serialise their operations as Windows'
// handles do and have no room: an answer that the driver has given up reaches nobody.
#include "tests/agent/running_agent.h"
#include "tests/agent_link/serialising_link.h"
#include "tests/doubles/agent/held_card.h"
#include "tests/doubles/agent/serialising_port.h"

namespace zelta::test {
namespace {

const Bytes kCommand = {0x80, 0x40, 0x00, 0x00};

// The agent gives its card any time, as if its process had stood still.
class OwnAgent : public SerialisingLink {
 protected:
  ~OwnAgent() override {
    card_.letGo();
    agent_.stop();
    stop();
  }

  void SetUp() override {
    expectCardFound(startAndWait(std::chrono::milliseconds(500)));
    card_.hold();
    EXPECT_EQ(transmit(), QueryResult::kTimeout);
  }

  void waitForCard(bool in) {
    while ((reader().state() != SCARD_ABSENT) != in) std::this_thread::yield();
  }
  void expectCardFound(FakeRequest& insertion) {
    ASSERT_TRUE(insertion.waitCompleted());
    waitForCard(true);
  }
  QueryResult transmit() {
    response_.clear();
    return queryTransmit(kCommand, response_);
  }
  // A transmit fails, or is answered without the card if the loss of the agent is known already.
  void expectUnanswered(QueryResult result) {
    if (result == QueryResult::kSuccess) {
      EXPECT_EQ(response_, (Bytes{0x69, 0x01}));
    } else {
      EXPECT_EQ(result, QueryResult::kFailure);
      EXPECT_TRUE(response_.empty());
    }
  }
  // The agent has dropped the connection, and comes back.
  void expectServedAgain() {
    waitForCard(false);
    expectCardFound(waitForInsertion());
    EXPECT_EQ(transmit(), QueryResult::kSuccess);
    EXPECT_EQ(response_, heldAnswer(2));
  }

  HeldCard card_;
  std::unique_ptr<SerialisingPort> made_ = std::make_unique<SerialisingPort>(pipes_);
  SerialisingPort& port_ = *made_;
  RunningAgent agent_{card_, patientTiming(), failTest, std::move(made_)};
  Bytes response_;
};

TEST_F(OwnAgent, LateAnswer_IsTakenBackAtTheNextCommand) {
  card_.letGo();
  port_.waitUntilAnswering();
  expectUnanswered(transmit());
  expectServedAgain();
}

TEST_F(OwnAgent, AnswerThatComesAfterTheNextCommand_IsNotWritten) {
  auto next = begin([this] { return transmit(); });
  ASSERT_TRUE(waitUntilStuck());
  card_.letGo();
  expectUnanswered(next.get());
  expectServedAgain();
}

}  // namespace
}  // namespace zelta::test
