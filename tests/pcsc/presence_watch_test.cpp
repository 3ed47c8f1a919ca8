#include "pcsc/presence_watch.h"

#include <algorithm>

#include "tests/pcsc/channel_fixture.h"

namespace zelta::pcsc {
namespace {

using std::chrono::milliseconds;
using test::FakeReader;
using test::kGenFailure;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kLong = FakeReader::kLimit;
constexpr auto kInsertion = IOCTL_SMARTCARD_IS_PRESENT;
constexpr auto kRemoval = IOCTL_SMARTCARD_IS_ABSENT;

class PresenceWatchTest : public testing::Test {
 protected:
  void start() {
    file_.emplace("dev0", reader_->open(), [] { return nullptr; });
    watch_.emplace(*file_, presence_, log_->log());
  }
  void startWithCard() {
    start();
    reader_->insertCard();
    ASSERT_TRUE(waitForCard(true));
  }
  // Waits, as pcscd's polling thread does, until the card is or is not shown.
  bool waitForCard(bool in) {
    const auto end = Clock::now() + kLong;
    while ((presence_->reportCard() != kNoCard) != in) {
      if (Clock::now() > end) return false;
      presence_->awaitChange(kLong / 2);
    }
    return true;
  }

  const std::shared_ptr<FakeReader> reader_ = std::make_shared<FakeReader>();
  const std::shared_ptr<CardPresence> presence_ = std::make_shared<CardPresence>();
  const std::shared_ptr<test::LogLines> log_ = std::make_shared<test::LogLines>();
  std::optional<ReaderFile> file_;
  std::optional<PresenceWatch> watch_;
};

TEST_F(PresenceWatchTest, InsertionsAndRemovals_AreShownOverAndOver) {
  start();
  ASSERT_NE(reader_->waitForWaiting(kInsertion), nullptr);
  EXPECT_EQ(reader_->count(kRemoval), 0u);
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(presence_->card(), kNoCard);
    reader_->insertCard();
    ASSERT_TRUE(waitForCard(true)) << i;
    reader_->removeCard();
    EXPECT_EQ(presence_->card(), kNoCard) << "hidden before the driver's callback returns";
    ASSERT_TRUE(waitForCard(false)) << i;
  }
  for (const auto code : {kInsertion, kRemoval}) {
    EXPECT_TRUE(reader_->requests(code)[0].input.empty());
    EXPECT_EQ(reader_->requests(code)[0].outputCapacity, 0u);
  }
}

// The agent did not answer in time, so no event reports a card that is in.
TEST_F(PresenceWatchTest, InsertionRequestThatTookTheDriverLong_IsCancelledAndMadeAgain) {
  reader_->holdDispatch(kInsertion, true);
  start();
  ASSERT_TRUE(reader_->waitForCount(kInsertion, 1));
  EXPECT_FALSE(reader_->waitForServerQuestion(PresenceWatch::kPromptCheck));
  reader_->holdDispatch(kInsertion, false);
  const auto first = reader_->waitForWaiting(kInsertion);
  ASSERT_TRUE(first->wait(kLong));
  EXPECT_TRUE(first->cancelled());
  ASSERT_TRUE(reader_->waitForCount(kInsertion, 2));
  reader_->insertCard();
  EXPECT_TRUE(waitForCard(true));
}

TEST_F(PresenceWatchTest, Card_IsShownOnlyWhenTheRemovalRequestWaitsInTheDriver) {
  reader_->holdDispatch(kRemoval, true);
  start();
  reader_->insertCard();
  ASSERT_TRUE(reader_->waitForCount(kRemoval, 1));
  EXPECT_EQ(presence_->card(), kNoCard);
  reader_->holdDispatch(kRemoval, false);
  EXPECT_TRUE(waitForCard(true));
}

TEST_F(PresenceWatchTest, CardThatIsGoneWhenTheRemovalIsAskedFor_IsNeverShown) {
  reader_->completeNext(kRemoval, {framework::kOk});
  start();
  reader_->insertCard();
  ASSERT_TRUE(reader_->waitForCount(kRemoval, 2));
  // The second insertion request found the card; only that one is shown.
  ASSERT_TRUE(waitForCard(true));
  EXPECT_EQ(presence_->card(), 1u);
}

TEST_F(PresenceWatchTest, AnyEndOfTheRemovalRequest_IsARemoval) {
  for (const auto status : {framework::kOk, status::kCancelled, kGenFailure}) {
    startWithCard();
    reader_->removeCard(status);
    EXPECT_EQ(presence_->card(), kNoCard);
    ASSERT_TRUE(waitForCard(false));
    watch_.reset();
  }
}

TEST_F(PresenceWatchTest, InsertionRequestThatFails_IsMadeAgainAtOnce) {
  reader_->completeNext(kInsertion, {status::kOutOfMemory});
  start();
  for (std::size_t lost = 1; lost <= 3; ++lost) {
    ASSERT_TRUE(reader_->waitForCount(kInsertion, lost + 1));
    reader_->waitForWaiting(kInsertion)->complete(status::kCancelled);
  }
  reader_->insertCard();
  EXPECT_TRUE(waitForCard(true));
}

struct Backoff {
  const char* name;
  std::uint32_t code;
  framework::HRESULT status;
  std::size_t requests;  // take at least 150 milliseconds
};

const Backoff kBackoffs[] = {
    // The second at once, then after 10, 20, 40 and 80 milliseconds.
    {"RequestsThatFailAtOnce", kInsertion, kGenFailure, 6},
    // Then after 10, 20, 40, 40 and 40: the last card of a series of swaps must be seen soon.
    {"CardsThatLeaveBeforeTheyAreShown", kRemoval, framework::kOk, 7},
};

class BackoffTest : public PresenceWatchTest, public testing::WithParamInterface<Backoff> {};

TEST_P(BackoffTest, PausesGrowAndTheNextCardIsShown) {
  reader_->completeAll(GetParam().code, GetParam().status);
  if (GetParam().code == kRemoval) reader_->insertCard();
  const auto begun = Clock::now();
  start();
  ASSERT_TRUE(reader_->waitForCount(GetParam().code, GetParam().requests));
  EXPECT_GE(Clock::now() - begun, milliseconds(150));
  EXPECT_EQ(presence_->card(), kNoCard);
  reader_->completeNext(GetParam().code, {});
  reader_->insertCard();
  EXPECT_TRUE(waitForCard(true));
}

INSTANTIATE_TEST_SUITE_P(Reasons, BackoffTest, testing::ValuesIn(kBackoffs),
                         [](const auto& each) { return each.param.name; });

TEST_F(PresenceWatchTest, EndDuringAPause_DoesNotWaitForIt) {
  reader_->completeAll(kInsertion, kGenFailure);
  auto shortest = Clock::duration::max();
  for (std::size_t round = 1; round <= 5; ++round) {
    start();
    ASSERT_TRUE(reader_->waitForCount(kInsertion, 9 * round));  // the longest pause begins
    const auto begun = Clock::now();
    watch_.reset();
    shortest = std::min(shortest, Clock::now() - begun);
    if (shortest < PresenceWatch::kLongestPause / 2) return;
  }
  FAIL() << "each took half a pause or longer";
}

TEST_F(PresenceWatchTest, DeviceGone_IsARemovalAndTheLastRequest) {
  startWithCard();
  reader_->waitForWaiting(kRemoval)->complete(host::kDeviceGone);
  ASSERT_TRUE(waitForCard(false));
  watch_.reset();
  EXPECT_EQ(reader_->count(kInsertion), 1u);
  reader_->completeNext(kInsertion, {host::kDeviceGone});
  start();
  ASSERT_TRUE(reader_->waitForCount(kInsertion, 2));
  watch_.reset();
  EXPECT_EQ(reader_->count(kInsertion), 2u);
}

TEST_F(PresenceWatchTest, End_CancelsTheRequestThatWaits) {
  start();
  const auto insertion = reader_->waitForWaiting(kInsertion);
  ASSERT_NE(insertion, nullptr);
  watch_.reset();
  EXPECT_TRUE(insertion->cancelled());
  startWithCard();
  const auto removal = reader_->waitForWaiting(kRemoval);
  watch_.reset();
  EXPECT_TRUE(removal->cancelled());
}

}  // namespace
}  // namespace zelta::pcsc
