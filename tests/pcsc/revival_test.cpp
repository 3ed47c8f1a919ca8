// A reader that has stopped serving is brought back.
#include "contract/reader_states.h"
#include "pcsc/server_result.h"
#include "tests/pcsc/channel_fixture.h"

namespace zelta::pcsc {
namespace {

using test::failedWith;
using test::FakeReader;
using test::kAtr;
using testing::ElementsAre;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::string stopped(const std::string& reason) {
  return "2 reader dev0 does not serve: " + reason + "; the device is restarted until it serves";
}
const std::string kIdle = stopped("nobody asked for a card within 10 s (5023)");
const std::string kDenied = stopped("access to its pipes is denied (5)");
const std::string kBack = "2 reader dev0 serves again";

class RevivalTest : public test::TableTest {
 protected:
  // Opens the channel with the server thread's results for each bring-up.
  void open(FakeReader::ServerResults results) {
    results.insert(results.begin(), std::vector<std::uint32_t>());  // before the first
    reader_->setServerResults(std::move(results));
    ASSERT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  }
  // Calls pcscd's polling function until it shows the card.
  bool waitForCard() {
    const ChannelTable::Use use(table_, kLun);
    const auto end = Clock::now() + FakeReader::kLimit;
    while (use.channel()->checkPresence() != IFD_SUCCESS) {
      if (Clock::now() > end) return false;
      use.channel()->awaitChange(milliseconds(1000));
    }
    return true;
  }
};

struct Revival {
  const char* name;
  FakeReader::ServerResults results;
  std::deque<std::string> bringUpFailures;
  std::vector<std::string> lines;
  int broughtUp;
  milliseconds atLeast;  // until the last line
};

const Revival kRevivals[] = {
    {"ReaderThatServes_IsLeftAlone", {{kServing}}, {}, {}, 1, {}},
    {"DriverThatDoesNotKnowTheQuestion_IsLeftAlone", {{}}, {}, {}, 1, {}},
    {"ReaderThatStarts_IsAskedUntilItServes",
     {{kStillStarting, kStillStarting, kStillStarting, kServing}},
     {},
     {},
     1,
     {}},
    {"ReaderThatHasStopped_IsBroughtUpAnew", {{5023}, {kServing}}, {}, {kIdle, kBack}, 2, {}},
    {"ReaderThatStopsWhileItStarts_IsBroughtUpAnew",
     {{kStillStarting, 5}, {kServing}},
     {},
     {kDenied, kBack},
     2,
     {}},
    // After 100, 200 and 400 milliseconds.
    {"ReaderThatStopsAgainAndAgain_IsBroughtUpAfterGrowingPausesAndToldOnce",
     {{5}, {5}, {5}, {kServing}},
     {},
     {kDenied, kBack},
     4,
     milliseconds(700)},
    {"DriverThatDoesNotComeUp_IsTriedAgain",
     {{5}, {kServing}},
     {"", "OnD0Entry failed", "OnD0Entry failed"},
     {kDenied, stopped("OnD0Entry failed"), kBack},
     2,
     {}},
};

class RevivalTableTest : public RevivalTest, public testing::WithParamInterface<Revival> {};

TEST_P(RevivalTableTest, Reader_ServesInTheEndAndShowsItsCard) {
  record_->bringUpFailures = GetParam().bringUpFailures;
  const auto begun = Clock::now();
  open(GetParam().results);
  ASSERT_TRUE(reader_->waitForServerQuestion());
  ASSERT_TRUE(log_->waitForLines(GetParam().lines.size()));
  EXPECT_GE(Clock::now() - begun, GetParam().atLeast);
  reader_->insertCard();
  EXPECT_TRUE(waitForCard());
  EXPECT_EQ(table_.close(kLun), IFD_SUCCESS);
  EXPECT_EQ(record_->broughtUp, GetParam().broughtUp);
  EXPECT_EQ(log_->lines(), GetParam().lines);
}

INSTANTIATE_TEST_SUITE_P(Readers, RevivalTableTest, testing::ValuesIn(kRevivals),
                         [](const auto& each) { return each.param.name; });

// The driver has failed to read the card's protocols when the card entered.
class RefusedProtocolTest : public RevivalTest {
 protected:
  void SetUp() override {
    reader_->answerWith(IOCTL_SMARTCARD_POWER, test::succeededWith(kAtr));
    reader_->answerWith(IOCTL_SMARTCARD_SET_PROTOCOL, failedWith(status::kNotSupported));
  }
  // A card that has answered, and a protocol that the driver refuses.
  void refuse(DWORD protocol) {
    reader_->insertCard();
    ASSERT_TRUE(waitForCard());
    const ChannelTable::Use use(table_, kLun);
    ASSERT_EQ(use.channel()->power(IFD_POWER_UP).code, IFD_SUCCESS);
    EXPECT_EQ(use.channel()->setProtocol(protocol), IFD_PROTOCOL_NOT_SUPPORTED);
    // Still the same card, unless the device is restarted.
  }
};

// The driver refuses every protocol while it reads those of a card that has just entered.
TEST_F(RefusedProtocolTest, ProtocolRefusedForAMoment_IsAskedForAgainWithoutARestart) {
  open({{kServing}});
  reader_->insertCard();
  ASSERT_TRUE(waitForCard());
  const ChannelTable::Use use(table_, kLun);
  ASSERT_EQ(use.channel()->power(IFD_POWER_UP).code, IFD_SUCCESS);
  reader_->answer(IOCTL_SMARTCARD_SET_PROTOCOL, [this](const auto&) {
    return reader_->count(IOCTL_SMARTCARD_SET_PROTOCOL) < 3 ? failedWith(status::kNotSupported)
                                                            : test::succeededWith({});
  });
  EXPECT_EQ(use.channel()->setProtocol(SCARD_PROTOCOL_T1), IFD_SUCCESS);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_SET_PROTOCOL), 3u);
  EXPECT_EQ(record_->broughtUp, 1);
  EXPECT_THAT(log_->lines(), IsEmpty());
}

TEST_F(RefusedProtocolTest, ProtocolThatTheCardOffers_RestartsTheDeviceAfterGrowingPauses) {
  open({{kServing}, {kServing}, {kServing}, {kServing}});
  const auto begun = Clock::now();
  for (std::size_t restarts = 1; restarts <= 3; ++restarts) {
    refuse(SCARD_PROTOCOL_T1);
    ASSERT_TRUE(log_->waitForLines(2 * restarts));
  }
  EXPECT_GE(Clock::now() - begun, milliseconds(700));
  EXPECT_EQ(log_->lines()[0], stopped("the driver refuses a protocol that the card offers"));
  EXPECT_EQ(log_->lines()[1], kBack);
  EXPECT_EQ(table_.close(kLun), IFD_SUCCESS);
  EXPECT_EQ(record_->broughtUp, 4);
}

TEST_F(RefusedProtocolTest, ProtocolThatTheCardDoesNotOffer_LeavesTheDeviceAlone) {
  open({{kServing}});
  refuse(SCARD_PROTOCOL_T0);
  EXPECT_EQ(ChannelTable::Use(table_, kLun).channel()->checkPresence(), IFD_SUCCESS);
  EXPECT_EQ(table_.close(kLun), IFD_SUCCESS);
  EXPECT_THAT(log_->lines(), IsEmpty());
  EXPECT_EQ(record_->broughtUp, 1);
}

TEST_F(RevivalTest, CallsMeanwhile_SeeNoCardAndAreNotHeldUp) {
  open({{5}});
  ASSERT_TRUE(log_->waitForLines(1));
  const ChannelTable::Use use(table_, kLun);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(use.channel()->checkPresence(), IFD_ICC_NOT_PRESENT);
    EXPECT_EQ(use.channel()->power(IFD_POWER_UP).code, IFD_ICC_NOT_PRESENT);
    EXPECT_EQ(test::transmit(*use.channel(), 1, {0x00, 0xA4}, 16).code, IFD_ICC_NOT_PRESENT);
  }
}

TEST_F(RevivalTest, CloseDuringALongPause_DoesNotWaitForIt) {
  open({{5}});
  ASSERT_TRUE(reader_->waitForCount(IOCTL_SMARTCARD_IS_PRESENT, 5));  // 1.6 s to the next
  const auto begun = Clock::now();
  EXPECT_EQ(table_.close(kLun), IFD_SUCCESS);
  EXPECT_LT(Clock::now() - begun, milliseconds(1500));
}

TEST_F(RevivalTest, CloseWhileTheDeviceIsBroughtUp_LeavesItDown) {
  for (std::size_t round = 1; round <= 5; ++round) {
    open({{5}});
    ASSERT_TRUE(reader_->waitForCount(IOCTL_SMARTCARD_IS_PRESENT, round));
    EXPECT_EQ(table_.close(kLun), IFD_SUCCESS);
    EXPECT_EQ(record_->broughtUp, record_->takenDown);
  }
}

TEST_F(RevivalTest, OtherReaderOfTheDevice_GoesOnAfterIt) {
  other_->insertCard();
  ASSERT_EQ(table_.open(kOtherLun, 1), IFD_SUCCESS);
  ASSERT_NE(other_->waitForWaiting(IOCTL_SMARTCARD_IS_ABSENT), nullptr);
  reader_->setServerResults({{5023}, {kServing}});
  ASSERT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  ASSERT_TRUE(log_->waitForLines(2));
  ASSERT_TRUE(other_->waitForCount(IOCTL_SMARTCARD_IS_ABSENT, 2));
  EXPECT_EQ(table_.close(kLun), IFD_SUCCESS);
  EXPECT_EQ(table_.close(kOtherLun), IFD_SUCCESS);
  EXPECT_EQ(record_->broughtUp, 2);
  EXPECT_THAT(log_->lines(), ElementsAre(kIdle, kBack));
}

}  // namespace
}  // namespace zelta::pcsc
