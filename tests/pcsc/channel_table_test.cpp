#include "pcsc/channel_table.h"

#include <future>

#include "contract/attributes.h"
#include "tests/pcsc/channel_fixture.h"

namespace zelta::pcsc {
namespace {

using test::FakeReader;
using test::succeededWith;
using testing::ElementsAre;
using ChannelTableTest = test::TableTest;

TEST_F(ChannelTableTest, FirstChannel_BringsTheDriverUpAndTheLastTakesItDown) {
  for (int round = 1; round <= 3; ++round) {
    EXPECT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
    EXPECT_NE(reader_->waitForWaiting(IOCTL_SMARTCARD_IS_PRESENT), nullptr);
    EXPECT_EQ(table_.open(kOtherLun, 1), IFD_SUCCESS);
    EXPECT_NE(other_->waitForWaiting(IOCTL_SMARTCARD_IS_PRESENT), nullptr);
    EXPECT_EQ(record_->broughtUp, round);
    EXPECT_EQ(table_.close(kLun), IFD_SUCCESS);
    EXPECT_EQ(record_->takenDown, round - 1);
    EXPECT_EQ(ChannelTable::Use(table_, kOtherLun).channel()->checkPresence(), IFD_ICC_NOT_PRESENT);
    EXPECT_EQ(table_.close(kOtherLun), IFD_SUCCESS);
    EXPECT_EQ(record_->takenDown, round);
    EXPECT_EQ(record_->destroyed, round);
  }
  EXPECT_EQ(record_->loaded, std::vector<std::string>(3, "/module.so"));
}

struct OpenFailure {
  const char* name;
  const char* loadFailure;
  const char* bringUpFailure;
  std::uint32_t readerIndex;
  RESPONSECODE code;
  const char* line;
  int destroyed;  // hosts
};

const OpenFailure kOpenFailures[] = {
    {"ModuleThatCannotBeLoaded", "driver module '/module.so': no such file", "", 0,
     IFD_COMMUNICATION_ERROR,
     "3 reader dev0 cannot be had: driver module '/module.so': no such file", 0},
    {"DriverThatDoesNotComeUp", "", "OnDeviceAdd of the driver failed with code 0x80070057", 0,
     IFD_COMMUNICATION_ERROR,
     "3 reader dev0 cannot be had: OnDeviceAdd of the driver failed with code 0x80070057", 1},
    {"ReaderThatTheDriverDoesNotHave", "", "", 7, IFD_NO_SUCH_DEVICE,
     "2 the driver has no reader dev7", 1},
};

class OpenFailureTest : public test::TableTest, public testing::WithParamInterface<OpenFailure> {};

TEST_P(OpenFailureTest, IsLoggedAndLeavesNothing) {
  record_->loadFailure = GetParam().loadFailure;
  record_->bringUpFailures = {GetParam().bringUpFailure};
  EXPECT_EQ(table_.open(kLun, GetParam().readerIndex), GetParam().code);
  EXPECT_THAT(log_->lines(), ElementsAre(GetParam().line));
  EXPECT_EQ(record_->destroyed, GetParam().destroyed);
  record_->loadFailure.clear();
  record_->bringUpFailures.clear();
  EXPECT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Reasons, OpenFailureTest, testing::ValuesIn(kOpenFailures),
                         [](const auto& each) { return each.param.name; });

TEST_F(ChannelTableTest, ReaderOrNumberThatIsTakenOrMissing_IsRefusedAndTheFirstChannelGoesOn) {
  ASSERT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  EXPECT_EQ(table_.open(kOtherLun, 0), IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(table_.open(kLun, 1), IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(table_.open(kOtherLun, 7), IFD_NO_SUCH_DEVICE);
  EXPECT_THAT(log_->lines(),
              ElementsAre("3 reader dev0 is in use already: two entries of reader.conf name it",
                          "2 channel 0 is open already", "2 the driver has no reader dev7"));
  EXPECT_EQ(table_.close(kOtherLun), IFD_NO_SUCH_DEVICE);
  EXPECT_EQ(ChannelTable::Use(table_, kLun + 1).channel(), nullptr);  // another slot
  EXPECT_NE(ChannelTable::Use(table_, kLun).channel(), nullptr);
  EXPECT_EQ(record_->takenDown, 0);
}

TEST_F(ChannelTableTest, WhatTheDriverDoesWrong_IsLogged) {
  ASSERT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  record_->driverError("a request was completed twice");
  EXPECT_THAT(log_->lines(), ElementsAre("2 a request was completed twice"));
}

TEST_F(ChannelTableTest, Close_ReleasesThePollingFunction) {
  ASSERT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  std::promise<void> polling;
  auto polled = std::async(std::launch::async, [&] {
    const ChannelTable::Use use(table_, kLun);
    polling.set_value();
    use.channel()->awaitChange(std::chrono::minutes(10));
  });
  polling.get_future().wait();
  EXPECT_EQ(table_.close(kLun), IFD_SUCCESS);
  EXPECT_EQ(polled.wait_for(FakeReader::kLimit), std::future_status::ready);
}

TEST_F(ChannelTableTest, Close_WaitsForTheCallsThatAreInsideAndLetsNoneIn) {
  ASSERT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  std::promise<void> inside;
  std::promise<void> goOn;
  reader_->answer(IOCTL_SMARTCARD_SET_ATTRIBUTE, [&](const auto&) {
    inside.set_value();
    goOn.get_future().wait();
    return succeededWith({});
  });
  auto call = std::async(std::launch::async, [this] {
    return ChannelTable::Use(table_, kLun).channel()->setAttribute(SCARD_ATTR_DEVICE_IN_USE, {});
  });
  inside.get_future().wait();
  auto closed = std::async(std::launch::async, [this] { return table_.close(kLun); });
  EXPECT_EQ(closed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  EXPECT_EQ(ChannelTable::Use(table_, kLun).channel(), nullptr);
  goOn.set_value();
  EXPECT_EQ(closed.get(), IFD_SUCCESS);
  EXPECT_EQ(call.get(), IFD_SUCCESS);
}

TEST_F(ChannelTableTest, CloseThatWaitsForItsPresenceThread_HoldsUpNoOtherChannel) {
  ASSERT_EQ(table_.open(kOtherLun, 1), IFD_SUCCESS);
  reader_->holdDispatch(IOCTL_SMARTCARD_IS_PRESENT, true);
  ASSERT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  ASSERT_TRUE(reader_->waitForCount(IOCTL_SMARTCARD_IS_PRESENT, 1));
  auto closed = std::async(std::launch::async, [this] { return table_.close(kLun); });
  EXPECT_EQ(closed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  auto used = std::async(std::launch::async, [this] {
    return ChannelTable::Use(table_, kOtherLun).channel()->checkPresence();
  });
  EXPECT_EQ(used.wait_for(FakeReader::kLimit), std::future_status::ready);
  reader_->holdDispatch(IOCTL_SMARTCARD_IS_PRESENT, false);
  EXPECT_EQ(closed.get(), IFD_SUCCESS);
  EXPECT_EQ(used.get(), IFD_ICC_NOT_PRESENT);
}

}  // namespace
}  // namespace zelta::pcsc
