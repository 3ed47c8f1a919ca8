// A card that is pulled while the agent leaves the driver without an answer: the call ends, and the
// next card works when the driver has given up, which takes it five seconds.
#include <gmock/gmock.h>

#include <functional>
#include <future>

#include "contract/bytes.h"
#include "contract/reader_states.h"
#include "contract/wire.h"
#include "tests/pcsc/handler_fixture.h"

namespace zelta::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class HandlerRemovalTest : public HandlerFixture {
 protected:
  void SetUp() override {
    openWithCard();
    Bytes atr;
    ASSERT_EQ(power(IFD_POWER_UP, &atr), IFD_SUCCESS);
    ASSERT_EQ(handler_->setProtocol(kLun, SCARD_PROTOCOL_T1, 0, 0, 0, 0), IFD_SUCCESS);
  }

  // The call reaches the agent, which then reports the removal instead of an answer.
  RESPONSECODE callAndPull(AgentCommand command, const std::function<RESPONSECODE()>& call) {
    const int before = agent_.commands(command);
    agent_.ignore(command, 1);
    auto caller = std::async(std::launch::async, call);
    EXPECT_TRUE(agent_.waitForCommands(command, before + 1));
    agent_.remove();
    return caller.get();
  }
  void useNextCard() {
    waitForPresence(IFD_ICC_NOT_PRESENT);
    agent_.insert();
    waitForPresence(IFD_SUCCESS);
    Bytes bytes;
    EXPECT_EQ(power(IFD_POWER_UP, &bytes), IFD_SUCCESS);
    EXPECT_EQ(bytes, CardAgent::usualAtr());
    EXPECT_EQ(handler_->setProtocol(kLun, SCARD_PROTOCOL_T1, 0, 0, 0, 0), IFD_SUCCESS);
    EXPECT_EQ(transmit({0, 1, 2, 3}, &bytes), IFD_SUCCESS);
    EXPECT_THAT(bytes, ElementsAre(0, 1, 2, 3, 0x90, 0x00));
    EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
  }
};

TEST_F(HandlerRemovalTest, CommandEndsWithoutACardAndTheNextCardWorks) {
  Bytes answer;
  EXPECT_EQ(callAndPull(AgentCommand::kQueryTransmit,
                        [&] {
                          return transmit({0, 1, 2, 3}, &answer);
                        }),
            IFD_ICC_NOT_PRESENT);
  EXPECT_THAT(answer, IsEmpty());
  EXPECT_EQ(transmit({0, 1, 2, 3}, &answer), IFD_ICC_NOT_PRESENT);
  useNextCard();
}

TEST_F(HandlerRemovalTest, PowerUpDoesToo) {
  Bytes atr;
  ASSERT_EQ(power(IFD_POWER_DOWN, &atr), IFD_SUCCESS);
  EXPECT_EQ(callAndPull(AgentCommand::kQueryAtrReset, [&] { return power(IFD_POWER_UP, &atr); }),
            IFD_ICC_NOT_PRESENT);
  EXPECT_THAT(atr, IsEmpty());
  EXPECT_EQ(power(IFD_POWER_UP, &atr), IFD_ICC_NOT_PRESENT);
  useNextCard();
}

TEST_F(HandlerRemovalTest, ResetDoesToo) {
  Bytes atr;
  EXPECT_EQ(callAndPull(AgentCommand::kQueryAtrReset, [&] { return power(IFD_RESET, &atr); }),
            IFD_ICC_NOT_PRESENT);
  EXPECT_THAT(atr, IsEmpty());
  useNextCard();
}

TEST_F(HandlerRemovalTest, ChannelClosesWhileTheDriverStillWaits) {
  Bytes answer;
  EXPECT_EQ(callAndPull(AgentCommand::kQueryTransmit,
                        [&] {
                          return transmit({0, 1, 2, 3}, &answer);
                        }),
            IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
  EXPECT_EQ(handler_->presence(kLun), IFD_NO_SUCH_DEVICE);
}

}  // namespace
}  // namespace zelta::test
