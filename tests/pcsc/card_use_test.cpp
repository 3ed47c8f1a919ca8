// Calls that work with the card, and what becomes of them and of the next card at its removal.
#include <gtest/gtest.h>

#include <optional>

#include "tests/pcsc/card_presence_fixture.h"
#include "tests/support/waiting_thread.h"

namespace zelta::pcsc {
namespace {

using test::WaitingThread;

class CardUseTest : public CardPresenceTest {
 protected:
  // pcscd sees the card; a call works with it.
  CardUseTest() {
    enter();
    presence_.reportCard();
    use_.emplace(presence_);
  }

  std::optional<CardUse> use_;
};

TEST_F(CardUseTest, CardIsShownUntilItLeavesIsCycledOrTheChannelCloses) {
  EXPECT_TRUE(presence_.isShown(use_->card()));
  EXPECT_FALSE(presence_.isShown(use_->card() + 1));
  EXPECT_FALSE(presence_.isShown(kNoCard));
  presence_.cardLeft();
  EXPECT_FALSE(presence_.isShown(use_->card()));
  CardPresence cycled;
  cycled.expectCard();
  ASSERT_TRUE(cycled.cardEntered());
  cycled.cycle(cycled.card());
  EXPECT_EQ(cycled.card(), kNoCard);
  CardPresence closed;
  closed.expectCard();
  ASSERT_TRUE(closed.cardEntered());
  closed.close();
  EXPECT_EQ(closed.card(), kNoCard);
}

TEST_F(CardUseTest, NextCardIsShownOnceTheCallIsOver) {
  presence_.cardLeft();
  enter();
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_EQ(presence_.reportCard(), kNoCard);
  EXPECT_TRUE(takesItsTime());
  EXPECT_EQ(presence_.reportCard(), kNoCard);
  WaitingThread polling([this] {
    presence_.awaitChange(kLong);
    EXPECT_NE(presence_.reportCard(), kNoCard);
  });
  ASSERT_TRUE(polling.waits());
  use_.reset();
  EXPECT_TRUE(polling.ends());
}

TEST_F(CardUseTest, CallOfACardThatIsInHidesNothing) {
  EXPECT_EQ(presence_.card(), use_->card());
  EXPECT_TRUE(takesItsTime());
}

TEST_F(CardPresenceTest, CardThatEntersWhileACallIsRefusedIsShownAfterIt) {
  const auto begun = std::chrono::steady_clock::now();
  {
    const CardUse use(presence_);
    EXPECT_EQ(use.card(), kNoCard);
    enter();
    EXPECT_TRUE(takesItsTime());
    EXPECT_EQ(presence_.reportCard(), kNoCard);
    presence_.refused();
  }
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_GE(std::chrono::steady_clock::now() - begun, CardPresence::kSettlingTime);
  EXPECT_NE(presence_.reportCard(), kNoCard);
}

}  // namespace
}  // namespace zelta::pcsc
