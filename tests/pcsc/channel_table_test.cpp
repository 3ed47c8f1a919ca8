#include "pcsc/channel_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "contract/attributes.h"
#include "contract/io_controls.h"
#include "tests/pcsc/channel_fixture.h"

namespace zelta::pcsc {
namespace {

using test::FakeDriverHost;
using test::FakeHostRecord;
using test::FakeReader;
using test::succeededWith;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr DWORD kLun = 0;
constexpr DWORD kOtherLun = 0x10000;

class ChannelTableTest : public testing::Test {
 protected:
  ChannelTableTest()
      : table_({[this](const std::string& path, host::HostOptions options) {
                  return FakeDriverHost::load(path, std::move(options), record_,
                                              {{L"dev0", first_}, {L"dev1", second_}});
                },
                [] { return std::string("/module.so"); }, log_->log()}) {}

  const std::shared_ptr<FakeHostRecord> record_ = std::make_shared<FakeHostRecord>();
  const std::shared_ptr<FakeReader> first_ = std::make_shared<FakeReader>();
  const std::shared_ptr<FakeReader> second_ = std::make_shared<FakeReader>();
  const std::shared_ptr<test::LogLines> log_ = std::make_shared<test::LogLines>();
  ChannelTable table_;
};

TEST_F(ChannelTableTest, FirstChannelBringsTheDriverUpAndWatchesForTheCard) {
  EXPECT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  EXPECT_THAT(record_->loaded, ElementsAre("/module.so"));
  EXPECT_EQ(record_->broughtUp, 1);
  EXPECT_NE(first_->waitForWaiting(IOCTL_SMARTCARD_IS_PRESENT), nullptr);
  EXPECT_THAT(log_->lines(), IsEmpty());
}

TEST_F(ChannelTableTest, LastChannelTakesItDown) {
  ASSERT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  EXPECT_EQ(table_.close(kLun), IFD_SUCCESS);
  EXPECT_EQ(record_->takenDown, 1);
  EXPECT_EQ(record_->destroyed, 1);
}

TEST_F(ChannelTableTest, ChannelsShareOneDriver) {
  EXPECT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  EXPECT_EQ(table_.open(kOtherLun, 1), IFD_SUCCESS);
  EXPECT_EQ(record_->broughtUp, 1);
  EXPECT_EQ(table_.close(kLun), IFD_SUCCESS);
  EXPECT_EQ(record_->takenDown, 0);
  {
    const ChannelTable::Use use(table_, kOtherLun);
    ASSERT_NE(use.channel(), nullptr);
    EXPECT_EQ(use.channel()->presence(), IFD_ICC_NOT_PRESENT);
  }
  EXPECT_EQ(table_.close(kOtherLun), IFD_SUCCESS);
  EXPECT_EQ(record_->takenDown, 1);
}

TEST_F(ChannelTableTest, ChannelCanBeOpenedAgain) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
    EXPECT_NE(first_->waitForWaiting(IOCTL_SMARTCARD_IS_PRESENT), nullptr);
    EXPECT_EQ(table_.close(kLun), IFD_SUCCESS);
  }
  EXPECT_EQ(record_->broughtUp, 3);
  EXPECT_EQ(record_->destroyed, 3);
}

TEST_F(ChannelTableTest, ModuleThatCannotBeLoadedIsLogged) {
  record_->loadFailure = "driver module '/module.so': no such file";
  EXPECT_EQ(table_.open(kLun, 0), IFD_COMMUNICATION_ERROR);
  EXPECT_THAT(log_->lines(), ElementsAre("3 reader dev0 cannot be had: driver module "
                                         "'/module.so': no such file"));
  record_->loadFailure.clear();
  EXPECT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
}

TEST_F(ChannelTableTest, DriverThatDoesNotComeUpIsLoggedAndUnloaded) {
  record_->bringUpFailure = "OnDeviceAdd of the driver failed with code 0x80070057";
  EXPECT_EQ(table_.open(kLun, 0), IFD_COMMUNICATION_ERROR);
  EXPECT_THAT(log_->lines(), ElementsAre("3 reader dev0 cannot be had: OnDeviceAdd of the driver "
                                         "failed with code 0x80070057"));
  EXPECT_EQ(record_->destroyed, 1);
}

TEST_F(ChannelTableTest, ReaderThatTheDriverDoesNotHaveDoesNotExist) {
  EXPECT_EQ(table_.open(kLun, 7), IFD_NO_SUCH_DEVICE);
  EXPECT_THAT(log_->lines(), ElementsAre("2 the driver has no reader dev7"));
  EXPECT_EQ(record_->destroyed, 1);
}

TEST_F(ChannelTableTest, ReaderThatDoesNotExistLeavesTheOthersAlone) {
  ASSERT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  EXPECT_EQ(table_.open(kOtherLun, 7), IFD_NO_SUCH_DEVICE);
  EXPECT_EQ(record_->takenDown, 0);
  EXPECT_NE(ChannelTable::Use(table_, kLun).channel(), nullptr);
}

TEST_F(ChannelTableTest, SecondChannelOnAReaderIsAClearErrorAndTheFirstGoesOn) {
  ASSERT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  EXPECT_EQ(table_.open(kOtherLun, 0), IFD_COMMUNICATION_ERROR);
  EXPECT_THAT(log_->lines(),
              ElementsAre("3 reader dev0 is in use already: two entries of reader.conf name it"));
  EXPECT_EQ(table_.close(kOtherLun), IFD_NO_SUCH_DEVICE);
  EXPECT_EQ(record_->takenDown, 0);
  EXPECT_NE(ChannelTable::Use(table_, kLun).channel(), nullptr);
}

TEST_F(ChannelTableTest, NumberThatIsOpenIsRefused) {
  ASSERT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  EXPECT_EQ(table_.open(kLun, 1), IFD_COMMUNICATION_ERROR);
  EXPECT_THAT(log_->lines(), ElementsAre("2 channel 0 is open already"));
}

TEST_F(ChannelTableTest, NumbersThatAreNotOpenHaveNoChannel) {
  EXPECT_EQ(ChannelTable::Use(table_, kLun).channel(), nullptr);
  EXPECT_EQ(table_.close(kLun), IFD_NO_SUCH_DEVICE);
  ASSERT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  EXPECT_EQ(ChannelTable::Use(table_, kLun + 1).channel(), nullptr);  // another slot
}

TEST_F(ChannelTableTest, WhatTheDriverDoesWrongIsLogged) {
  ASSERT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  record_->driverError("a request was completed twice");
  EXPECT_THAT(log_->lines(), ElementsAre("2 a request was completed twice"));
}

TEST_F(ChannelTableTest, CloseReleasesThePollingFunction) {
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

TEST_F(ChannelTableTest, CloseWaitsForTheCallsThatAreInside) {
  ASSERT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
  std::promise<void> inside;
  std::promise<void> goOn;
  first_->answer(IOCTL_SMARTCARD_SET_ATTRIBUTE, [&](const auto&) {
    inside.set_value();
    goOn.get_future().wait();
    return succeededWith({});
  });
  auto call = std::async(std::launch::async, [this] {
    const ChannelTable::Use use(table_, kLun);
    return use.channel()->setAttribute(SCARD_ATTR_DEVICE_IN_USE, {});
  });
  inside.get_future().wait();
  auto closed = std::async(std::launch::async, [this] { return table_.close(kLun); });
  EXPECT_EQ(closed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  EXPECT_EQ(ChannelTable::Use(table_, kLun).channel(), nullptr);  // nobody gets in any more
  goOn.set_value();
  EXPECT_EQ(closed.get(), IFD_SUCCESS);
  EXPECT_EQ(call.get(), IFD_SUCCESS);
}

TEST_F(ChannelTableTest, CallsFromManyThreadsWhileChannelsComeAndGo) {
  std::atomic<bool> stop{false};
  std::vector<std::future<void>> callers;
  for (int i = 0; i < 4; ++i) {
    callers.push_back(std::async(std::launch::async, [&, i] {
      while (!stop) {
        const ChannelTable::Use use(table_, i % 2 == 0 ? kLun : kOtherLun);
        if (use.channel() == nullptr) continue;
        use.channel()->presence();
        use.channel()->power(IFD_POWER_UP);
        use.channel()->setAttribute(SCARD_ATTR_DEVICE_IN_USE, {});
        use.channel()->stopAwaiting();
        use.channel()->awaitChange(std::chrono::milliseconds(1));
      }
    }));
  }
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(table_.open(kLun, 0), IFD_SUCCESS);
    EXPECT_EQ(table_.open(kOtherLun, 1), IFD_SUCCESS);
    first_->insertCard();
    EXPECT_EQ(table_.close(kLun), IFD_SUCCESS);
    EXPECT_EQ(table_.close(kOtherLun), IFD_SUCCESS);
  }
  stop = true;
  for (auto& caller : callers) caller.get();
}

}  // namespace
}  // namespace zelta::pcsc
