#include "agent/card/pcsc_card.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "contract/bytes.h"
#include "tests/agent/running_agent.h"
#include "tests/doubles/agent/card_notices.h"
#include "tests/doubles/agent/fake_winscard.h"

namespace zelta::agent {
namespace {

using test::FakeWinscard;
using test::kFakeReader;
using testing::ElementsAre;

const Bytes kAtr = {0x3B, 0x00};
const Bytes kCommand = {0x00, 0xA4, 0x04, 0x00};

class PcscCardTest : public testing::Test {
 protected:
  PcscCardTest() : log_(Severity::kDebug, lines_.sink()), card_(kFakeReader, log_) {}
  ~PcscCardTest() override { card_.stop(); }

  void startWithCard() {
    service_.insertCard();
    card_.start(notices_);
    notices_.waitFor("in ");
  }

  FakeWinscard service_;
  test::LogLines lines_;
  Log log_;
  test::CardNotices notices_;
  PcscCard card_;
};

TEST_F(PcscCardTest, FailureOfItsWatch_IsToldAndItCanBeStopped) {
  service_.insertCard();
  test::FailingNotices listener;
  card_.start(listener);
  EXPECT_EQ(listener.told(), "no memory for the card");
  card_.stop();
}

TEST_F(PcscCardTest, WithoutService_StartFailsUnlessItComesWithTheReader) {
  service_.setService(false);
  if (!kServiceNeedsReader) {
    EXPECT_THROW(card_.start(notices_), std::runtime_error);
    return;
  }
  card_.start(notices_);
  EXPECT_EQ(card_.atr(), Bytes());
  service_.insertCard();
  service_.setService(true);
  notices_.waitFor("in ");
  EXPECT_EQ(card_.atr(), kAtr);
}

TEST_F(PcscCardTest, CardOfTheRealReader_Answers) {
  startWithCard();
  EXPECT_EQ(card_.name(), "pcsc");
  EXPECT_EQ(card_.atr(), kAtr);
  EXPECT_THAT(service_.takeCalls(), ElementsAre("connect"));
  EXPECT_EQ(card_.transmit(kCommand), kCommand);
  EXPECT_EQ(card_.reset(), kAtr);
  EXPECT_THAT(service_.takeCalls(), ElementsAre("transmit", "reset"));
}

TEST_F(PcscCardTest, InsertionAndRemoval_AreFollowed) {
  card_.start(notices_);
  service_.insertCard();
  notices_.waitFor("in ");
  service_.removeCard();
  notices_.waitFor("in out ");
  service_.insertCard();
  notices_.waitFor("in out in ");
}

TEST_F(PcscCardTest, CardChangedUnseen_IsTwoNotices) {
  startWithCard();
  service_.swapCard();
  notices_.waitFor("in out in ");
}

TEST_F(PcscCardTest, CardThatACommandFindsGone_IsToldBeforeTheCommandReturns) {
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

TEST_F(PcscCardTest, ResetByAnotherProgram_IsAcceptedAndTheCommandRepeated) {
  startWithCard();
  EXPECT_EQ(card_.atr(), kAtr);
  service_.takeCalls();
  service_.failTransmits({SCARD_W_RESET_CARD});
  EXPECT_EQ(card_.transmit(kCommand), kCommand);
  EXPECT_THAT(service_.takeCalls(), ElementsAre("transmit", "leave", "transmit"));
}

TEST_F(PcscCardTest, CommandThatFails_IsNotAnsweredAndTheNextConnectsAnew) {
  startWithCard();
  EXPECT_EQ(card_.atr(), kAtr);
  service_.failTransmits({SCARD_E_NOT_TRANSACTED});
  EXPECT_EQ(card_.transmit(kCommand), Bytes());
  EXPECT_EQ(notices_.text(), "in ");
  EXPECT_TRUE(
      lines_.has("warning: Sending a command to the card: " + pcscText(SCARD_E_NOT_TRANSACTED)));
  EXPECT_EQ(card_.transmit(kCommand), kCommand);
  EXPECT_THAT(service_.takeCalls(),
              ElementsAre("connect", "transmit", "disconnect", "connect", "transmit"));
}

TEST_F(PcscCardTest, ReaderThatComesLater_IsMissedAndFound) {
  service_.setReader(false);
  service_.insertCard();
  card_.start(notices_);
  service_.waitUntilWatched();
  lines_.waitFor(
      "warning: There is no reader 'Fake Reader 00 00', which is waited for; to see them: ");
  service_.setReader(true);
  notices_.waitFor("in ");
}

TEST_F(PcscCardTest, ReaderThatGoes_TakesItsCardAlong) {
  startWithCard();
  service_.setReader(false);
  notices_.waitFor("in out ");
  service_.setReader(true);
  notices_.waitFor("in out in ");
}

TEST_F(PcscCardTest, ReaderThatIsSaidToBeUnknown_IsNotIgnoredFromThenOn) {
  service_.tellUnknownReaderByItsState();
  startWithCard();
  service_.setReader(false);
  notices_.waitFor("in out ");
  service_.setReader(true);
  notices_.waitFor("in out in ");
}

TEST_F(PcscCardTest, ServiceThatGoes_TakesTheCardAlongAndIsFoundAgain) {
  startWithCard();
  EXPECT_EQ(card_.atr(), kAtr);
  service_.setService(false);
  notices_.waitFor("in out ");
  EXPECT_EQ(card_.transmit(kCommand), Bytes());
  service_.setService(true);
  notices_.waitFor("in out in ");
  EXPECT_EQ(card_.transmit(kCommand), kCommand);
}

TEST_F(PcscCardTest, RealCard_IsNotMovedByTheAgent) {
  startWithCard();
  EXPECT_THAT(card_.insert(), testing::HasSubstr("by hand"));
  EXPECT_THAT(card_.remove(), testing::HasSubstr("by hand"));
}

TEST_F(PcscCardTest, Stop_EndsTheWatchAndReleasesEverything) {
  startWithCard();
  EXPECT_EQ(card_.atr(), kAtr);
  card_.stop();
  EXPECT_EQ(service_.contexts(), 0u);
  EXPECT_THAT(service_.takeCalls(), ElementsAre("connect", "disconnect"));
  EXPECT_EQ(notices_.text(), "in ");
}

}  // namespace
}  // namespace zelta::agent
