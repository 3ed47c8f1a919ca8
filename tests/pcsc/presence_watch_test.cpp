#include "pcsc/presence_watch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "pcsc/driver_io.h"
#include "tests/pcsc/channel_fixture.h"

namespace zelta::pcsc {
namespace {

using std::chrono::milliseconds;
using test::FakeReader;

constexpr framework::HRESULT kCancelled = framework::hresult(0x800704C7);
constexpr framework::HRESULT kGenFailure = framework::hresult(0x8007001F);
constexpr milliseconds kLong{30000};

class PresenceWatchTest : public testing::Test {
 protected:
  void start() {
    file_.emplace("dev0", reader_->open(), [this] { return renew(); });
    watch_.emplace(*file_, presence_, log_->log());
  }

  std::shared_ptr<host::File> renew() { return renew_(); }

  // Waits, as pcscd's polling thread does, until the card is or is not shown.
  bool waitForCard(bool in) {
    const auto end = std::chrono::steady_clock::now() + kLong;
    while ((presence_->reportCard() != kNoCard) != in) {
      if (std::chrono::steady_clock::now() > end) return false;
      presence_->awaitChange(kLong / 2);
    }
    return true;
  }

  const std::shared_ptr<FakeReader> reader_ = std::make_shared<FakeReader>();
  const std::shared_ptr<CardPresence> presence_ = std::make_shared<CardPresence>();
  const std::shared_ptr<test::LogLines> log_ = std::make_shared<test::LogLines>();
  std::function<std::shared_ptr<host::File>()> renew_ = [] { return nullptr; };
  std::optional<ReaderFile> file_;
  std::optional<PresenceWatch> watch_;
};

TEST_F(PresenceWatchTest, AsksForAnInsertionAtOnceAndShowsNoCard) {
  start();
  ASSERT_NE(reader_->waitForWaiting(kIoctlIsPresent), nullptr);
  EXPECT_EQ(reader_->count(kIoctlIsAbsent), 0u);
  EXPECT_EQ(presence_->card(), kNoCard);
}

TEST_F(PresenceWatchTest, RequestsCarryNoData) {
  reader_->insertCard();
  start();
  ASSERT_NE(reader_->waitForWaiting(kIoctlIsAbsent), nullptr);
  for (const auto code : {kIoctlIsPresent, kIoctlIsAbsent}) {
    const auto requests = reader_->requests(code);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_TRUE(requests[0].input.empty());
    EXPECT_EQ(requests[0].outputCapacity, 0u);
  }
}

TEST_F(PresenceWatchTest, InsertionAndRemovalAreShownOverAndOver) {
  start();
  for (int i = 0; i < 20; ++i) {
    reader_->insertCard();
    ASSERT_TRUE(waitForCard(true)) << i;
    reader_->removeCard();
    ASSERT_TRUE(waitForCard(false)) << i;
  }
}

// The agent did not answer in time: no event tells of a card that is in.
TEST_F(PresenceWatchTest, InsertionRequestThatTookTheDriverLongIsCancelledAndMadeAgain) {
  reader_->holdDispatch(kIoctlIsPresent, true);
  start();
  ASSERT_TRUE(reader_->waitForCount(kIoctlIsPresent, 1));
  EXPECT_FALSE(reader_->waitForServerQuestion(PresenceWatch::kPromptCheck));
  reader_->holdDispatch(kIoctlIsPresent, false);
  const auto first = reader_->waitForWaiting(kIoctlIsPresent);
  ASSERT_TRUE(first->wait(kLong));
  EXPECT_TRUE(first->cancelled());
  ASSERT_TRUE(reader_->waitForCount(kIoctlIsPresent, 2));
  reader_->insertCard();
  EXPECT_TRUE(waitForCard(true));
}

TEST_F(PresenceWatchTest, CardIsShownOnlyWhenTheRemovalRequestWaitsInTheDriver) {
  reader_->holdDispatch(kIoctlIsAbsent, true);
  start();
  reader_->insertCard();
  ASSERT_TRUE(reader_->waitForCount(kIoctlIsAbsent, 1));
  EXPECT_EQ(presence_->card(), kNoCard);
  reader_->holdDispatch(kIoctlIsAbsent, false);
  EXPECT_TRUE(waitForCard(true));
}

TEST_F(PresenceWatchTest, CardThatIsGoneWhenTheRemovalIsAskedForIsNeverShown) {
  reader_->completeNext(kIoctlIsAbsent, {framework::kOk});
  start();
  reader_->insertCard();
  ASSERT_TRUE(reader_->waitForCount(kIoctlIsAbsent, 2));
  // The second insertion request found the card; only that one is shown.
  ASSERT_TRUE(waitForCard(true));
  EXPECT_EQ(presence_->card(), 1u);
}

TEST_F(PresenceWatchTest, RemovalHidesTheCardBeforeTheDriversCallbackReturns) {
  start();
  reader_->insertCard();
  ASSERT_TRUE(waitForCard(true));
  reader_->removeCard();
  EXPECT_EQ(presence_->card(), kNoCard);
}

TEST_F(PresenceWatchTest, AnyEndOfTheRemovalRequestIsARemoval) {
  for (const auto status : {framework::kOk, kCancelled, kGenFailure}) {
    start();
    reader_->insertCard();
    ASSERT_TRUE(waitForCard(true));
    reader_->removeCard(status);
    EXPECT_EQ(presence_->card(), kNoCard);
    ASSERT_TRUE(waitForCard(false));
    watch_.reset();
  }
}

TEST_F(PresenceWatchTest, CancelledInsertionIsAskedForAgainAtOnce) {
  start();
  ASSERT_NE(reader_->waitForWaiting(kIoctlIsPresent), nullptr);
  for (std::size_t lost = 1; lost <= 3; ++lost) {
    reader_->waitForWaiting(kIoctlIsPresent)->complete(kCancelled);
    ASSERT_TRUE(reader_->waitForCount(kIoctlIsPresent, lost + 1));
  }
  reader_->insertCard();
  EXPECT_TRUE(waitForCard(true));
}

TEST_F(PresenceWatchTest, RequestsThatFailAtOncePauseLongerAndLonger) {
  reader_->completeAll(kIoctlIsPresent, kGenFailure);
  const auto begun = std::chrono::steady_clock::now();
  start();
  ASSERT_TRUE(reader_->waitForCount(kIoctlIsPresent, 6));
  // The second at once, then after 10, 20, 40 and 80 milliseconds.
  EXPECT_GE(std::chrono::steady_clock::now() - begun, milliseconds(150));
  reader_->completeNext(kIoctlIsPresent, {});
  reader_->insertCard();
  EXPECT_TRUE(waitForCard(true));
}

// Less long: the last card of a series of swaps is to be seen soon.
TEST_F(PresenceWatchTest, CardsThatLeaveBeforeTheyAreShownPauseToo) {
  reader_->insertCard();
  reader_->completeAll(kIoctlIsAbsent, framework::kOk);
  const auto begun = std::chrono::steady_clock::now();
  start();
  ASSERT_TRUE(reader_->waitForCount(kIoctlIsAbsent, 7));
  // The second at once, then after 10, 20, 40, 40 and 40 milliseconds.
  EXPECT_GE(std::chrono::steady_clock::now() - begun, milliseconds(150));
  EXPECT_EQ(presence_->card(), kNoCard);
}

TEST_F(PresenceWatchTest, EndsDuringAPauseWithoutWaitingForIt) {
  reader_->completeAll(kIoctlIsPresent, kGenFailure);
  auto shortest = std::chrono::steady_clock::duration::max();
  for (std::size_t round = 1; round <= 5; ++round) {
    start();
    ASSERT_TRUE(reader_->waitForCount(kIoctlIsPresent, 9 * round));  // the longest pause begins
    const auto begun = std::chrono::steady_clock::now();
    watch_.reset();
    shortest = std::min(shortest, std::chrono::steady_clock::now() - begun);
    if (shortest < PresenceWatch::kLongestPause / 2) return;
  }
  FAIL() << "each took half a pause or longer";
}

TEST_F(PresenceWatchTest, AsksNoMoreWhenTheDeviceIsGone) {
  reader_->completeNext(kIoctlIsPresent, {host::kDeviceGone});
  start();
  ASSERT_TRUE(reader_->waitForCount(kIoctlIsPresent, 1));
  watch_.reset();
  EXPECT_EQ(reader_->count(kIoctlIsPresent), 1u);
}

TEST_F(PresenceWatchTest, DeviceGoneWhileTheCardIsInIsARemovalAndTheLastRequest) {
  start();
  reader_->insertCard();
  ASSERT_TRUE(waitForCard(true));
  reader_->waitForWaiting(kIoctlIsAbsent)->complete(host::kDeviceGone);
  ASSERT_TRUE(waitForCard(false));
  watch_.reset();
  EXPECT_EQ(reader_->count(kIoctlIsPresent), 1u);
}

TEST_F(PresenceWatchTest, EndCancelsTheRequestThatWaits) {
  start();
  const auto insertion = reader_->waitForWaiting(kIoctlIsPresent);
  ASSERT_NE(insertion, nullptr);
  watch_.reset();
  EXPECT_TRUE(insertion->cancelled());
}

TEST_F(PresenceWatchTest, EndWithTheCardInCancelsTheRemovalRequest) {
  start();
  reader_->insertCard();
  ASSERT_TRUE(waitForCard(true));
  const auto removal = reader_->waitForWaiting(kIoctlIsAbsent);
  watch_.reset();
  EXPECT_TRUE(removal->cancelled());
}

TEST_F(PresenceWatchTest, MemoryThatIsBackIsUsedAgain) {
  reader_->completeNext(kIoctlIsPresent, {framework::hresult(0x8007000E)});
  start();
  ASSERT_TRUE(reader_->waitForCount(kIoctlIsPresent, 2));
  reader_->insertCard();
  EXPECT_TRUE(waitForCard(true));
}

}  // namespace
}  // namespace zelta::pcsc
