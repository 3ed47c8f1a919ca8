#include "agent/card/pcsc_card.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "contract/bytes.h"
#include "tests/agent/card/fake_winscard.h"
#include "tests/agent/link/failing_listener.h"
#include "tests/agent/program/running_agent.h"

namespace zelta::agent {
namespace {

using test::FakeWinscard;
using test::kFakeReader;
using testing::ElementsAre;

const Bytes kAtr = {0x3B, 0x00};
const Bytes kCommand = {0x00, 0xA4, 0x04, 0x00};

// Notices as they come: "in", "out".
class Notices final : public CardListener {
 public:
  void cardInserted() override { add("in "); }
  void cardRemoved() override { add("out "); }
  void cardFailed(const char* problem) override { test::failTest(problem); }
  void waitFor(const std::string& text) {
    platform::MutexLock lock(mutex_);
    changed_.wait(lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return text_ == text; });
  }
  std::string text() {
    platform::MutexLock lock(mutex_);
    return text_;
  }

 private:
  void add(const std::string& word) {
    platform::MutexLock lock(mutex_);
    text_ += word;
    changed_.notifyAll();
  }

  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  std::string text_ ZELTA_GUARDED_BY(mutex_);
};

class PcscCardTest : public testing::Test {
 protected:
  PcscCardTest() : log_(LogLevel::kDebug, lines_.sink()), card_(kFakeReader, log_) {}
  ~PcscCardTest() override { card_.stop(); }

  void startWithCard() {
    service_.insertCard();
    card_.start(notices_);
    notices_.waitFor("in ");
  }

  FakeWinscard service_;
  test::LogLines lines_;
  Log log_;
  Notices notices_;
  PcscCard card_;
};

TEST_F(PcscCardTest, failureOfItsWatchIsToldAndItCanBeStopped) {
  service_.insertCard();
  test::FailingListener listener;
  card_.start(listener);
  EXPECT_EQ(listener.told(), "no memory for the card");
  card_.stop();
}

TEST_F(PcscCardTest, withoutServiceStartFails) {
  service_.setService(false);
  EXPECT_THROW(card_.start(notices_), std::runtime_error);
}

TEST_F(PcscCardTest, cardOfTheRealReaderAnswers) {
  startWithCard();
  EXPECT_EQ(card_.name(), "pcsc");
  EXPECT_EQ(card_.atr(), kAtr);
  EXPECT_THAT(service_.takeCalls(), ElementsAre("connect"));
  EXPECT_EQ(card_.transmit(kCommand), kCommand);
  EXPECT_EQ(card_.reset(), kAtr);
  EXPECT_THAT(service_.takeCalls(), ElementsAre("transmit", "reset"));
}

TEST_F(PcscCardTest, insertionAndRemovalAreFollowed) {
  card_.start(notices_);
  service_.insertCard();
  notices_.waitFor("in ");
  service_.removeCard();
  notices_.waitFor("in out ");
  service_.insertCard();
  notices_.waitFor("in out in ");
}

TEST_F(PcscCardTest, cardThatWasChangedWithoutBeingSeenIsTwoNotices) {
  startWithCard();
  service_.swapCard();
  notices_.waitFor("in out in ");
}

TEST_F(PcscCardTest, cardThatACommandFindsGoneIsToldBeforeTheCommandReturns) {
  startWithCard();
  EXPECT_EQ(card_.reset(), kAtr);
  service_.loseCard();
  EXPECT_EQ(card_.transmit(kCommand), Bytes());
  EXPECT_EQ(notices_.text(), "in out ");
  EXPECT_THAT(service_.takeCalls(), ElementsAre("connect", "reset", "transmit", "disconnect"));
  service_.removeCard();
  service_.insertCard();
  notices_.waitFor("in out in ");
  EXPECT_EQ(card_.transmit(kCommand), kCommand);
}

TEST_F(PcscCardTest, resetByAnotherProgramIsTakenAndTheCommandRepeated) {
  startWithCard();
  EXPECT_EQ(card_.atr(), kAtr);
  service_.takeCalls();
  service_.failTransmits({SCARD_W_RESET_CARD});
  EXPECT_EQ(card_.transmit(kCommand), kCommand);
  EXPECT_THAT(service_.takeCalls(), ElementsAre("transmit", "leave", "transmit"));
}

TEST_F(PcscCardTest, commandThatFailsIsNotAnsweredAndTheNextConnectsAnew) {
  startWithCard();
  EXPECT_EQ(card_.atr(), kAtr);
  service_.failTransmits({SCARD_E_NOT_TRANSACTED});
  EXPECT_EQ(card_.transmit(kCommand), Bytes());
  EXPECT_EQ(notices_.text(), "in ");
  EXPECT_TRUE(lines_.has("warning: Sending a command to the card: a PC/SC failure"));
  EXPECT_EQ(card_.transmit(kCommand), kCommand);
  EXPECT_THAT(service_.takeCalls(),
              ElementsAre("connect", "transmit", "disconnect", "connect", "transmit"));
}

TEST_F(PcscCardTest, readerMayComeLater) {
  service_.setReader(false);
  service_.insertCard();
  card_.start(notices_);
  service_.waitUntilWatched();
  service_.setReader(true);
  notices_.waitFor("in ");
}

TEST_F(PcscCardTest, readerThatGoesTakesItsCardAlong) {
  startWithCard();
  service_.setReader(false);
  notices_.waitFor("in out ");
  service_.setReader(true);
  notices_.waitFor("in out in ");
}

TEST_F(PcscCardTest, serviceThatGoesTakesTheCardAlongAndIsFoundAgain) {
  startWithCard();
  EXPECT_EQ(card_.atr(), kAtr);
  service_.setService(false);
  notices_.waitFor("in out ");
  EXPECT_EQ(card_.transmit(kCommand), Bytes());
  service_.setService(true);
  notices_.waitFor("in out in ");
  EXPECT_EQ(card_.transmit(kCommand), kCommand);
}

TEST_F(PcscCardTest, realCardIsNotMovedByTheAgent) {
  startWithCard();
  EXPECT_THAT(card_.insert(), testing::HasSubstr("by hand"));
  EXPECT_THAT(card_.remove(), testing::HasSubstr("by hand"));
}

TEST_F(PcscCardTest, stopEndsTheWatchAndLetsGoOfEverything) {
  startWithCard();
  EXPECT_EQ(card_.atr(), kAtr);
  card_.stop();
  EXPECT_EQ(service_.contexts(), 0u);
  EXPECT_THAT(service_.takeCalls(), ElementsAre("connect", "disconnect"));
  EXPECT_EQ(notices_.text(), "in ");
}

}  // namespace
}  // namespace zelta::agent
