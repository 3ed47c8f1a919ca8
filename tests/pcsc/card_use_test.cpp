// Calls that work with the card, and what becomes of them and of the next card at its removal.
#include <gtest/gtest.h>

#include <optional>

#include "tests/pcsc/card_presence_fixture.h"
#include "tests/support/waiting_thread.h"

namespace zelta::pcsc {
namespace {

using std::chrono::milliseconds;
using RequestEnd = CardPresence::RequestEnd;
using test::WaitingThread;

class CardUseTest : public CardPresenceTest {
 protected:
  // pcscd sees the card; a call works with it and has a request in the driver.
  CardUseTest() {
    enter();
    presence_.reportCard();
    use_.emplace(presence_);
    EXPECT_TRUE(presence_.beginRequest(use_->card()));
  }

  RequestEnd awaitEnd(milliseconds limit = kLong) {
    return presence_.awaitEnd(request_, use_->card(), limit);
  }
  // The removal, and the next card, as the driver reports them and pcscd is told.
  void swap() {
    presence_.cardLeft();
    enter();
    EXPECT_TRUE(returnsAtOnce());
    EXPECT_EQ(presence_.reportCard(), kNoCard);
  }

  CardPresence::Request request_;
  std::optional<CardUse> use_;
};

TEST_F(CardUseTest, RequestEndsWithItsCompletion) {
  WaitingThread call([this] { EXPECT_EQ(awaitEnd(), RequestEnd::kEnded); });
  ASSERT_TRUE(call.waits());
  presence_.endRequest(request_);
  EXPECT_TRUE(call.ends());
}

TEST_F(CardUseTest, RemovalEndsTheWaitForARequestThatTheDriverKeeps) {
  WaitingThread call([this] { EXPECT_EQ(awaitEnd(), RequestEnd::kCardLeft); });
  ASSERT_TRUE(call.waits());
  presence_.cardLeft();
  EXPECT_TRUE(call.ends());
}

TEST_F(CardUseTest, CycleEndsItToo) {
  WaitingThread call([this] { EXPECT_EQ(awaitEnd(), RequestEnd::kCardLeft); });
  ASSERT_TRUE(call.waits());
  presence_.cycle(use_->card());
  EXPECT_TRUE(call.ends());
}

TEST_F(CardUseTest, CompletionAfterTheRemovalCountsAsRemoval) {
  presence_.cardLeft();
  presence_.endRequest(request_);
  EXPECT_EQ(awaitEnd(), RequestEnd::kCardLeft);
}

TEST_F(CardUseTest, CompletionBeforeTheRemovalDoesToo) {
  presence_.endRequest(request_);
  presence_.cardLeft();
  EXPECT_EQ(awaitEnd(), RequestEnd::kCardLeft);
}

TEST_F(CardUseTest, NoFurtherRequestIsMadeForACardThatLeft) {
  presence_.cardLeft();
  EXPECT_FALSE(presence_.beginRequest(use_->card()));
  EXPECT_FALSE(presence_.beginRequest(kNoCard));
}

TEST_F(CardUseTest, NextCardIsShownOnceTheDriverHasEndedTheOldOnesRequest) {
  swap();
  use_.reset();
  EXPECT_TRUE(takesItsTime());
  EXPECT_EQ(presence_.reportCard(), kNoCard);
  WaitingThread polling([this] {
    presence_.awaitChange(kLong);
    EXPECT_NE(presence_.reportCard(), kNoCard);
  });
  ASSERT_TRUE(polling.waits());
  presence_.endRequest(request_);
  EXPECT_TRUE(polling.ends());
}

TEST_F(CardUseTest, NextCardIsShownOnceTheCallIsOver) {
  swap();
  presence_.endRequest(request_);
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

TEST_F(CardUseTest, RequestThatIsNeverEndedIsGivenUpAndTheCardCycled) {
  EXPECT_EQ(awaitEnd(kShort), RequestEnd::kTimedOut);
  EXPECT_EQ(presence_.card(), kNoCard);
  use_.reset();
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_TRUE(takesItsTime());
  EXPECT_EQ(presence_.reportCard(), kNoCard);
  presence_.endRequest(request_);
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_NE(presence_.reportCard(), kNoCard);
}

TEST_F(CardUseTest, UnusedIsWhenCallAndRequestAreOver) {
  EXPECT_FALSE(presence_.awaitUnused(kShort));
  use_.reset();
  EXPECT_FALSE(presence_.awaitUnused(kShort));
  WaitingThread closing([this] { EXPECT_TRUE(presence_.awaitUnused(kLong)); });
  ASSERT_TRUE(closing.waits());
  presence_.endRequest(request_);
  EXPECT_TRUE(closing.ends());
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
