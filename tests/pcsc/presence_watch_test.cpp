#include "pcsc/presence_watch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "contract/io_controls.h"
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
  ASSERT_NE(reader_->waitForWaiting(IOCTL_SMARTCARD_IS_PRESENT), nullptr);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_IS_ABSENT), 0u);
  EXPECT_EQ(presence_->card(), kNoCard);
}

TEST_F(PresenceWatchTest, RequestsCarryNoData) {
  reader_->insertCard();
  start();
  ASSERT_NE(reader_->waitForWaiting(IOCTL_SMARTCARD_IS_ABSENT), nullptr);
  for (const auto code : {IOCTL_SMARTCARD_IS_PRESENT, IOCTL_SMARTCARD_IS_ABSENT}) {
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
  reader_->holdDispatch(IOCTL_SMARTCARD_IS_PRESENT, true);
  start();
  ASSERT_TRUE(reader_->waitForCount(IOCTL_SMARTCARD_IS_PRESENT, 1));
  EXPECT_FALSE(reader_->waitForServerQuestion(PresenceWatch::kPromptCheck));
  reader_->holdDispatch(IOCTL_SMARTCARD_IS_PRESENT, false);
  const auto first = reader_->waitForWaiting(IOCTL_SMARTCARD_IS_PRESENT);
  ASSERT_TRUE(first->wait(kLong));
  EXPECT_TRUE(first->cancelled());
  ASSERT_TRUE(reader_->waitForCount(IOCTL_SMARTCARD_IS_PRESENT, 2));
  reader_->insertCard();
  EXPECT_TRUE(waitForCard(true));
}

TEST_F(PresenceWatchTest, CardIsShownOnlyWhenTheRemovalRequestWaitsInTheDriver) {
  reader_->holdDispatch(IOCTL_SMARTCARD_IS_ABSENT, true);
  start();
  reader_->insertCard();
  ASSERT_TRUE(reader_->waitForCount(IOCTL_SMARTCARD_IS_ABSENT, 1));
  EXPECT_EQ(presence_->card(), kNoCard);
  reader_->holdDispatch(IOCTL_SMARTCARD_IS_ABSENT, false);
  EXPECT_TRUE(waitForCard(true));
}

TEST_F(PresenceWatchTest, CardThatIsGoneWhenTheRemovalIsAskedForIsNeverShown) {
  reader_->completeNext(IOCTL_SMARTCARD_IS_ABSENT, {framework::kOk});
  start();
  reader_->insertCard();
  ASSERT_TRUE(reader_->waitForCount(IOCTL_SMARTCARD_IS_ABSENT, 2));
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
  ASSERT_NE(reader_->waitForWaiting(IOCTL_SMARTCARD_IS_PRESENT), nullptr);
  for (std::size_t lost = 1; lost <= 3; ++lost) {
    reader_->waitForWaiting(IOCTL_SMARTCARD_IS_PRESENT)->complete(kCancelled);
    ASSERT_TRUE(reader_->waitForCount(IOCTL_SMARTCARD_IS_PRESENT, lost + 1));
  }
  reader_->insertCard();
  EXPECT_TRUE(waitForCard(true));
}

TEST_F(PresenceWatchTest, RequestsThatFailAtOncePauseLongerAndLonger) {
  reader_->completeAll(IOCTL_SMARTCARD_IS_PRESENT, kGenFailure);
  const auto begun = std::chrono::steady_clock::now();
  start();
  ASSERT_TRUE(reader_->waitForCount(IOCTL_SMARTCARD_IS_PRESENT, 6));
  // The second at once, then after 10, 20, 40 and 80 milliseconds.
  EXPECT_GE(std::chrono::steady_clock::now() - begun, milliseconds(150));
  reader_->completeNext(IOCTL_SMARTCARD_IS_PRESENT, {});
  reader_->insertCard();
  EXPECT_TRUE(waitForCard(true));
}

// Less long: the last card of a series of swaps is to be seen soon.
TEST_F(PresenceWatchTest, CardsThatLeaveBeforeTheyAreShownPauseToo) {
  reader_->insertCard();
  reader_->completeAll(IOCTL_SMARTCARD_IS_ABSENT, framework::kOk);
  const auto begun = std::chrono::steady_clock::now();
  start();
  ASSERT_TRUE(reader_->waitForCount(IOCTL_SMARTCARD_IS_ABSENT, 7));
  // The second at once, then after 10, 20, 40, 40 and 40 milliseconds.
  EXPECT_GE(std::chrono::steady_clock::now() - begun, milliseconds(150));
  EXPECT_EQ(presence_->card(), kNoCard);
}

TEST_F(PresenceWatchTest, EndsDuringAPauseWithoutWaitingForIt) {
  reader_->completeAll(IOCTL_SMARTCARD_IS_PRESENT, kGenFailure);
  auto shortest = std::chrono::steady_clock::duration::max();
  for (std::size_t round = 1; round <= 5; ++round) {
    start();
    ASSERT_TRUE(
        reader_->waitForCount(IOCTL_SMARTCARD_IS_PRESENT, 9 * round));  // the longest pause begins
    const auto begun = std::chrono::steady_clock::now();
    watch_.reset();
    shortest = std::min(shortest, std::chrono::steady_clock::now() - begun);
    if (shortest < PresenceWatch::kLongestPause / 2) return;
  }
  FAIL() << "each took half a pause or longer";
}

TEST_F(PresenceWatchTest, AsksNoMoreWhenTheDeviceIsGone) {
  reader_->completeNext(IOCTL_SMARTCARD_IS_PRESENT, {host::kDeviceGone});
  start();
  ASSERT_TRUE(reader_->waitForCount(IOCTL_SMARTCARD_IS_PRESENT, 1));
  watch_.reset();
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_IS_PRESENT), 1u);
}

TEST_F(PresenceWatchTest, DeviceGoneWhileTheCardIsInIsARemovalAndTheLastRequest) {
  start();
  reader_->insertCard();
  ASSERT_TRUE(waitForCard(true));
  reader_->waitForWaiting(IOCTL_SMARTCARD_IS_ABSENT)->complete(host::kDeviceGone);
  ASSERT_TRUE(waitForCard(false));
  watch_.reset();
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_IS_PRESENT), 1u);
}

TEST_F(PresenceWatchTest, EndCancelsTheRequestThatWaits) {
  start();
  const auto insertion = reader_->waitForWaiting(IOCTL_SMARTCARD_IS_PRESENT);
  ASSERT_NE(insertion, nullptr);
  watch_.reset();
  EXPECT_TRUE(insertion->cancelled());
}

TEST_F(PresenceWatchTest, EndWithTheCardInCancelsTheRemovalRequest) {
  start();
  reader_->insertCard();
  ASSERT_TRUE(waitForCard(true));
  const auto removal = reader_->waitForWaiting(IOCTL_SMARTCARD_IS_ABSENT);
  watch_.reset();
  EXPECT_TRUE(removal->cancelled());
}

TEST_F(PresenceWatchTest, MemoryThatIsBackIsUsedAgain) {
  reader_->completeNext(IOCTL_SMARTCARD_IS_PRESENT, {framework::hresult(0x8007000E)});
  start();
  ASSERT_TRUE(reader_->waitForCount(IOCTL_SMARTCARD_IS_PRESENT, 2));
  reader_->insertCard();
  EXPECT_TRUE(waitForCard(true));
}

}  // namespace
}  // namespace zelta::pcsc
