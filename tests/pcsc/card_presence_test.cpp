#include "pcsc/card_presence.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "tests/pcsc/card_presence_fixture.h"
#include "tests/support/waiting_thread.h"

namespace zelta::pcsc {
namespace {

using std::chrono::milliseconds;
using test::WaitingThread;

TEST_F(CardPresenceTest, ShowsNoCardAtFirst) {
  EXPECT_EQ(presence_.card(), kNoCard);
  EXPECT_EQ(presence_.reportCard(), kNoCard);
  EXPECT_TRUE(takesItsTime());
}

TEST_F(CardPresenceTest, CardThatEnteredIsShown) {
  enter();
  EXPECT_NE(presence_.card(), kNoCard);
  EXPECT_EQ(presence_.reportCard(), presence_.card());
}

TEST_F(CardPresenceTest, CardThatLeftBeforeItWasShownNeverIs) {
  presence_.expectCard();
  presence_.cardLeft();
  EXPECT_FALSE(presence_.cardEntered());
  EXPECT_EQ(presence_.card(), kNoCard);
  EXPECT_TRUE(takesItsTime());
  enter();
  EXPECT_NE(presence_.card(), kNoCard);
}

TEST_F(CardPresenceTest, InsertionEndsTheWait) {
  WaitingThread polling([this] { presence_.awaitChange(kLong); });
  ASSERT_TRUE(polling.waits());
  enter();
  EXPECT_TRUE(polling.ends());
}

TEST_F(CardPresenceTest, UnseenCardEndsTheNextWaitAtOnceAndOnlyThat) {
  enter();
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_TRUE(takesItsTime());
}

TEST_F(CardPresenceTest, CardThatThePollingThreadSawIsNotToldAgain) {
  enter();
  presence_.reportCard();
  EXPECT_TRUE(takesItsTime());
}

TEST_F(CardPresenceTest, CardThatAnotherThreadSawIsStillTold) {
  enter();
  std::thread([this] { presence_.reportCard(); }).join();
  EXPECT_TRUE(returnsAtOnce());
}

TEST_F(CardPresenceTest, RemovalEndsTheWaitAndShowsNoCardAtOnce) {
  enter();
  WaitingThread polling([this] {
    presence_.reportCard();  // it is this thread that need not be told of the card
    presence_.awaitChange(kLong);
  });
  ASSERT_TRUE(polling.waits());
  presence_.cardLeft();
  EXPECT_EQ(presence_.card(), kNoCard);
  EXPECT_TRUE(polling.ends());
  EXPECT_TRUE(takesItsTime());
}

TEST_F(CardPresenceTest, CardThatIsBackIsHiddenUntilPollingIsEnteredAgain) {
  enter();
  presence_.reportCard();
  const CardNumber first = presence_.card();
  presence_.cardLeft();
  enter();
  EXPECT_TRUE(returnsAtOnce());  // for the removal
  EXPECT_EQ(presence_.reportCard(), kNoCard);
  EXPECT_EQ(presence_.reportCard(), kNoCard);  // however often it is asked
  EXPECT_TRUE(returnsAtOnce());                // for the card that is back
  EXPECT_NE(presence_.reportCard(), kNoCard);
  EXPECT_NE(presence_.card(), first);
  EXPECT_TRUE(takesItsTime());
}

TEST_F(CardPresenceTest, SwapBetweenQuestionAndPollingIsNotLost) {
  enter();
  EXPECT_NE(presence_.reportCard(), kNoCard);
  presence_.cardLeft();
  enter();
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_EQ(presence_.reportCard(), kNoCard);
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_NE(presence_.reportCard(), kNoCard);
}

TEST_F(CardPresenceTest, CardThatCameAndWentWhileHiddenIsNeverShown) {
  enter();
  presence_.reportCard();
  presence_.cardLeft();
  enter();
  presence_.cardLeft();
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_EQ(presence_.reportCard(), kNoCard);
  EXPECT_TRUE(takesItsTime());
  EXPECT_EQ(presence_.reportCard(), kNoCard);
  enter();
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_NE(presence_.reportCard(), kNoCard);
}

TEST_F(CardPresenceTest, EachOfAHundredSwapsIsSeen) {
  platform::Mutex mutex;
  platform::ConditionVariable changed;
  int removals = 0;
  int insertions = 0;
  auto polled = std::async(std::launch::async, [&] {
    for (bool before = false; insertions < 101;) {
      presence_.awaitChange(kLong);
      const bool now = presence_.reportCard() != kNoCard;
      const platform::MutexLock lock(mutex);
      if (before && !now) ++removals;
      if (!before && now) ++insertions;
      before = now;
      changed.notifyAll();
    }
  });
  enter();
  for (int swap = 0; swap < 100; ++swap) {
    platform::MutexLock lock(mutex);
    ASSERT_TRUE(changed.waitFor(lock, kLong, [&] { return insertions == swap + 1; }));
    lock.unlock();
    presence_.cardLeft();
    enter();
  }
  ASSERT_EQ(polled.wait_for(kLong), std::future_status::ready);
  EXPECT_EQ(removals, 100);
  EXPECT_EQ(insertions, 101);
}

TEST_F(CardPresenceTest, StopBeforeTheWaitEndsItOnce) {
  presence_.stopAwaiting();
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_TRUE(takesItsTime());
}

TEST_F(CardPresenceTest, StopDuringTheWaitEndsIt) {
  WaitingThread polling([this] { presence_.awaitChange(kLong); });
  ASSERT_TRUE(polling.waits());
  presence_.stopAwaiting();
  EXPECT_TRUE(polling.ends());
}

TEST_F(CardPresenceTest, StopDoesNotSwallowARemoval) {
  enter();
  presence_.reportCard();
  presence_.stopAwaiting();
  presence_.cardLeft();
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_EQ(presence_.reportCard(), kNoCard);
}

TEST_F(CardPresenceTest, CloseEndsEveryWait) {
  WaitingThread polling([this] { presence_.awaitChange(kLong); });
  ASSERT_TRUE(polling.waits());
  presence_.close();
  EXPECT_TRUE(polling.ends());
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_TRUE(returnsAtOnce());
}

TEST_F(CardPresenceTest, NegativeTimeReturnsAtOnce) {
  presence_.awaitChange(milliseconds(-1));
  SUCCEED();
}

// --- Refusals ---

TEST_F(CardPresenceTest, CardThatIsBackIsNotShownSoonAfterARefusal) {
  enter();
  presence_.reportCard();
  presence_.cardLeft();
  const auto begun = std::chrono::steady_clock::now();
  presence_.refused();
  enter();
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_EQ(presence_.reportCard(), kNoCard);
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_GE(std::chrono::steady_clock::now() - begun, CardPresence::kSettlingTime);
  EXPECT_NE(presence_.reportCard(), kNoCard);
}

TEST_F(CardPresenceTest, CardThatEntersSoonAfterARefusalIsShownLater) {
  WaitingThread polling([this] { presence_.awaitChange(kLong); });
  ASSERT_TRUE(polling.waits());
  const auto begun = std::chrono::steady_clock::now();
  presence_.refused();
  enter();
  ASSERT_TRUE(polling.ends());
  EXPECT_GE(std::chrono::steady_clock::now() - begun, CardPresence::kSettlingTime);
  EXPECT_NE(presence_.reportCard(), kNoCard);
}

TEST_F(CardPresenceTest, RefusalsThatGoOnDoNotHideACardForEver) {
  presence_.refused();
  enter();
  auto polled = std::async(std::launch::async, [this] { presence_.awaitChange(kLong); });
  while (polled.wait_for(milliseconds(1)) != std::future_status::ready) presence_.refused();
  EXPECT_NE(presence_.card(), kNoCard);
}

TEST_F(CardPresenceTest, StopEndsTheWaitForAHiddenCard) {
  enter();
  presence_.reportCard();
  presence_.cardLeft();
  enter();
  EXPECT_TRUE(returnsAtOnce());
  presence_.refused();
  presence_.stopAwaiting();
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_EQ(presence_.reportCard(), kNoCard);
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_NE(presence_.reportCard(), kNoCard);
}

TEST_F(CardPresenceTest, RefusalWhileTheCardIsShownDoesNotHideIt) {
  enter();
  presence_.refused();
  EXPECT_NE(presence_.card(), kNoCard);
}

// --- Cycles ---

TEST_F(CardPresenceTest, CycleMakesTheCardLeaveAndEnterOnce) {
  enter();
  presence_.reportCard();
  const CardNumber first = presence_.card();
  presence_.cycle(first);
  EXPECT_EQ(presence_.card(), kNoCard);
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_EQ(presence_.reportCard(), kNoCard);
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_NE(presence_.reportCard(), kNoCard);
  EXPECT_NE(presence_.card(), first);
  EXPECT_TRUE(takesItsTime());
}

TEST_F(CardPresenceTest, CycleThatFollowsARefusalShowsTheCardLater) {
  enter();
  presence_.reportCard();
  const auto begun = std::chrono::steady_clock::now();
  presence_.refused();
  presence_.cycle(presence_.card());
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_GE(std::chrono::steady_clock::now() - begun, CardPresence::kSettlingTime);
  EXPECT_NE(presence_.reportCard(), kNoCard);
}

TEST_F(CardPresenceTest, CycleOfACardThatIsNoLongerShownDoesNothing) {
  enter();
  presence_.reportCard();
  const CardNumber first = presence_.card();
  presence_.cycle(first + 1);
  presence_.cycle(kNoCard);
  EXPECT_EQ(presence_.card(), first);
  EXPECT_TRUE(takesItsTime());
}

TEST_F(CardPresenceTest, CardThatLeavesDuringACycleStaysAway) {
  enter();
  presence_.reportCard();
  presence_.cycle(presence_.card());
  presence_.cardLeft();
  EXPECT_TRUE(returnsAtOnce());
  EXPECT_EQ(presence_.reportCard(), kNoCard);
  EXPECT_TRUE(takesItsTime());
  EXPECT_EQ(presence_.reportCard(), kNoCard);
}

}  // namespace
}  // namespace zelta::pcsc
