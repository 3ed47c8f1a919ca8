// A reader that has stopped serving is brought back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/status.h"
#include "pcsc/channel_table.h"
#include "pcsc/server_result.h"
#include "tests/pcsc/channel_fixture.h"
#include "tests/support/waiting_thread.h"

namespace zelta::pcsc {
namespace {

using test::failedWith;
using test::FakeDriverHost;
using test::FakeHostRecord;
using test::FakeReader;
using test::succeededWith;
using test::WaitingThread;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kIdle[] =
    "2 reader dev0 does not serve: nobody asked for a card within 10 s (5023); the device is "
    "restarted until it serves";
constexpr char kDenied[] =
    "2 reader dev0 does not serve: access to its pipes is denied (5); the device is restarted "
    "until it serves";
constexpr char kBack[] = "2 reader dev0 serves again";

class RevivalTest : public testing::Test {
 protected:
  RevivalTest()
      : table_({[this](const std::string& path, host::HostOptions options) {
                  return FakeDriverHost::load(path, std::move(options), record_,
                                              {{L"dev0", reader_}, {L"dev1", other_}});
                },
                [] { return std::string("/module.so"); }, log_->log()}) {}

  // With what the server thread is said to be at each bring-up.
  void open(FakeReader::ServerResults results) {
    results.insert(results.begin(), std::vector<std::uint32_t>());  // before the first
    reader_->setServerResults(std::move(results));
    ASSERT_EQ(table_.open(0, 0), IFD_SUCCESS);
  }
  bool waitForLines(std::size_t count) { return log_->waitForLines(count, FakeReader::kLimit); }
  // pcscd's polling function until it shows the card.
  bool waitForCard() {
    const ChannelTable::Use use(table_, 0);
    const auto end = std::chrono::steady_clock::now() + FakeReader::kLimit;
    while (use.channel()->presence() != IFD_SUCCESS) {
      if (std::chrono::steady_clock::now() > end) return false;
      use.channel()->awaitChange(std::chrono::milliseconds(1000));
    }
    return true;
  }

  const std::shared_ptr<FakeHostRecord> record_ = std::make_shared<FakeHostRecord>();
  const std::shared_ptr<FakeReader> reader_ = std::make_shared<FakeReader>();
  const std::shared_ptr<FakeReader> other_ = std::make_shared<FakeReader>();
  const std::shared_ptr<test::LogLines> log_ = std::make_shared<test::LogLines>();
  ChannelTable table_;
};

TEST_F(RevivalTest, ReaderThatServesIsLeftAlone) {
  open({{kServing}});
  EXPECT_TRUE(reader_->waitForServerQuestion());
  reader_->insertCard();
  EXPECT_TRUE(waitForCard());
  EXPECT_EQ(table_.close(0), IFD_SUCCESS);
  EXPECT_EQ(record_->broughtUp, 1);
  EXPECT_THAT(log_->lines(), IsEmpty());
}

TEST_F(RevivalTest, DriverThatDoesNotKnowTheQuestionServes) {
  open({std::vector<std::uint32_t>()});
  EXPECT_TRUE(reader_->waitForServerQuestion());
  reader_->insertCard();
  EXPECT_TRUE(waitForCard());
  EXPECT_EQ(table_.close(0), IFD_SUCCESS);
  EXPECT_EQ(record_->broughtUp, 1);
  EXPECT_THAT(log_->lines(), IsEmpty());
}

TEST_F(RevivalTest, ReaderThatStartsIsAskedAgainUntilItServes) {
  open({{kStillStarting, kStillStarting, kStillStarting, kServing}});
  reader_->insertCard();
  EXPECT_TRUE(waitForCard());
  EXPECT_EQ(table_.close(0), IFD_SUCCESS);
  EXPECT_EQ(record_->broughtUp, 1);
  EXPECT_THAT(log_->lines(), IsEmpty());
}

TEST_F(RevivalTest, ReaderThatHasStoppedIsBroughtUpAnewWithALineEach) {
  open({{5023}, {kServing}});
  ASSERT_TRUE(waitForLines(2));
  EXPECT_THAT(log_->lines(), ElementsAre(kIdle, kBack));
  reader_->insertCard();
  EXPECT_TRUE(waitForCard());
  EXPECT_EQ(table_.close(0), IFD_SUCCESS);
  EXPECT_EQ(record_->broughtUp, 2);
}

TEST_F(RevivalTest, ReaderThatStopsWhileItStartsIsToo) {
  open({{kStillStarting, 5}, {kServing}});
  ASSERT_TRUE(waitForLines(2));
  EXPECT_THAT(log_->lines(), ElementsAre(kDenied, kBack));
}

TEST_F(RevivalTest, ItIsTriedWithGrowingPausesUntilItServesAndTheReasonToldOnce) {
  const auto begun = std::chrono::steady_clock::now();
  open({{5}, {5}, {5}, {kServing}});
  ASSERT_TRUE(waitForLines(2));
  EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(700));
  EXPECT_THAT(log_->lines(), ElementsAre(kDenied, kBack));
  EXPECT_EQ(table_.close(0), IFD_SUCCESS);
  EXPECT_EQ(record_->broughtUp, 4);
}

TEST_F(RevivalTest, DriverThatDoesNotComeUpIsTriedAgain) {
  record_->bringUpFailures = {"", "OnD0Entry failed", "OnD0Entry failed"};
  open({{5}, {kServing}});
  ASSERT_TRUE(waitForLines(3));
  EXPECT_THAT(log_->lines(),
              ElementsAre(kDenied,
                          "2 reader dev0 does not serve: OnD0Entry failed; the device is "
                          "restarted until it serves",
                          kBack));
  reader_->insertCard();
  EXPECT_TRUE(waitForCard());
}

// It has failed to read what the card offers when the card entered.
class RefusedProtocolTest : public RevivalTest {
 protected:
  void SetUp() override {
    reader_->answer(IOCTL_SMARTCARD_POWER, [](const auto&) {
      return succeededWith({0x3B, 0x95, 0x13, 0x81, 0x01, 0, 0, 0, 0, 0});
    });
    reader_->answer(IOCTL_SMARTCARD_SET_PROTOCOL,
                    [](const auto&) { return failedWith(status::kNotSupported); });
  }
  // A card that has answered, and a protocol that the driver refuses.
  void refuse(DWORD protocol) {
    reader_->insertCard();
    ASSERT_TRUE(waitForCard());
    const ChannelTable::Use use(table_, 0);
    ASSERT_EQ(use.channel()->power(IFD_POWER_UP).code, IFD_SUCCESS);
    EXPECT_EQ(use.channel()->setProtocol(protocol), IFD_PROTOCOL_NOT_SUPPORTED);
  }
};

TEST_F(RefusedProtocolTest, ProtocolThatTheCardOffersRestartsTheDevice) {
  open({{kServing}, {kServing}});
  refuse(SCARD_PROTOCOL_T1);
  ASSERT_TRUE(waitForLines(2));
  EXPECT_THAT(log_->lines(),
              ElementsAre("2 reader dev0 does not serve: the driver refuses a protocol that the "
                          "card offers; the device is restarted until it serves",
                          kBack));
  EXPECT_EQ(table_.close(0), IFD_SUCCESS);
  EXPECT_EQ(record_->broughtUp, 2);
}

TEST_F(RefusedProtocolTest, ProtocolThatTheCardDoesNotOfferLeavesTheDeviceAlone) {
  open({{kServing}});
  refuse(SCARD_PROTOCOL_T0);
  EXPECT_EQ(table_.close(0), IFD_SUCCESS);
  EXPECT_THAT(log_->lines(), IsEmpty());
  EXPECT_EQ(record_->broughtUp, 1);
}

TEST_F(RefusedProtocolTest, RefusedAgainAndAgain_ThePausesGrow) {
  open({{kServing}, {kServing}, {kServing}, {kServing}});
  const auto begun = std::chrono::steady_clock::now();
  for (std::size_t restarts = 1; restarts <= 3; ++restarts) {
    refuse(SCARD_PROTOCOL_T1);
    ASSERT_TRUE(waitForLines(2 * restarts));
  }
  EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(700));
}

TEST_F(RevivalTest, CallsSeeNoCardMeanwhileAndAreNotHeldUp) {
  open({{5}});
  ASSERT_TRUE(waitForLines(1));
  const ChannelTable::Use use(table_, 0);
  Channel& channel = *use.channel();
  const Bytes command = {0x00, 0xA4};
  Bytes answer(16);
  std::size_t size = 0;
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(channel.presence(), IFD_ICC_NOT_PRESENT);
    EXPECT_EQ(channel.power(IFD_POWER_UP).code, IFD_ICC_NOT_PRESENT);
    EXPECT_EQ(channel.transmit({1, {command.data(), 2}, {answer.data(), 16}}, &size),
              IFD_ICC_NOT_PRESENT);
  }
}

TEST_F(RevivalTest, ChannelClosesAtOnceInALongPause) {
  open({{5}});
  ASSERT_TRUE(reader_->waitForCount(IOCTL_SMARTCARD_IS_PRESENT, 5));  // 1.6 s to the next
  const auto begun = std::chrono::steady_clock::now();
  EXPECT_EQ(table_.close(0), IFD_SUCCESS);
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(1500));
}

TEST_F(RevivalTest, ChannelClosesWhileTheDeviceIsBroughtUp) {
  for (int round = 0; round < 5; ++round) {
    open({{5}});
    ASSERT_TRUE(
        reader_->waitForCount(IOCTL_SMARTCARD_IS_PRESENT, 1 + static_cast<std::size_t>(round)));
    EXPECT_EQ(table_.close(0), IFD_SUCCESS);
    EXPECT_EQ(record_->broughtUp, record_->takenDown);
  }
}

TEST_F(RevivalTest, OtherReaderOfTheDeviceGoesOnAfterIt) {
  other_->insertCard();
  ASSERT_EQ(table_.open(0x10000, 1), IFD_SUCCESS);
  ASSERT_NE(other_->waitForWaiting(IOCTL_SMARTCARD_IS_ABSENT), nullptr);
  reader_->setServerResults({{5023}, {kServing}});
  ASSERT_EQ(table_.open(0, 0), IFD_SUCCESS);
  ASSERT_TRUE(waitForLines(2));
  ASSERT_TRUE(other_->waitForCount(IOCTL_SMARTCARD_IS_ABSENT, 2));
  EXPECT_EQ(table_.close(0), IFD_SUCCESS);
  EXPECT_EQ(table_.close(0x10000), IFD_SUCCESS);
  EXPECT_EQ(record_->broughtUp, 2);
  EXPECT_THAT(log_->lines(), ElementsAre(kIdle, kBack));
}

}  // namespace
}  // namespace zelta::pcsc
