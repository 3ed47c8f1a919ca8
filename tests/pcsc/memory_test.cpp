// Memory that runs out, at every possible point of pcscd's calls: they fail, nothing is left
// behind, and the next call and the next card work.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <new>

#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "pcsc/channel_table.h"
#include "tests/pcsc/channel_fixture.h"
#include "tests/support/scarce_memory.h"

namespace zelta::pcsc {
namespace {

using test::ScarceMemory;
using test::succeededWith;
using testing::ElementsAre;

constexpr int kManyAllocations = 500;  // more than any operation makes

// Runs `operation` with 0, 1, 2 ... allocations until they suffice; what it throws is
// std::bad_alloc. `after` follows each time.
void withEveryShortage(const std::function<void()>& operation, const std::function<void()>& after) {
  bool ranOut = true;
  for (int allocations = 0; ranOut; ++allocations) {
    ASSERT_LT(allocations, kManyAllocations) << "never enough memory";
    {
      const ScarceMemory memory(allocations);
      try {
        operation();
        ranOut = memory.ranOut();
      } catch (const std::bad_alloc&) {
      }
    }
    EXPECT_TRUE(allocations > 0 || ranOut) << "the operation allocates nothing";
    after();
  }
}

class ChannelMemoryTest : public test::ChannelTest {
 protected:
  static host::IoResult answerTo(const test::FakeReader::Request& request) {
    Bytes answer(request.input.begin(), request.input.begin() + kTransmitHeaderSize);
    answer.insert(answer.end(), {0x90, 0x00});
    return succeededWith(answer);
  }

  Reply send() { return transmit(1, {0x00, 0xA4}, 258); }

  // The card leaves and is back: no call is in its way.
  void changeCard() {
    remove();
    insertAndPowerUp();
    EXPECT_THAT(send().bytes, ElementsAre(0x90, 0x00));
  }

  void SetUp() override {
    reader_->answer(IOCTL_SMARTCARD_TRANSMIT, answerTo);
    insertAndPowerUp();
  }
};

TEST_F(ChannelMemoryTest, CommandFailsAndTheNextOneWorks) {
  withEveryShortage([this] { send(); }, [this] { changeCard(); });
}

TEST_F(ChannelMemoryTest, ResetDoesToo) {
  withEveryShortage([this] { channel_->power(IFD_RESET); }, [this] { changeCard(); });
}

TEST_F(ChannelMemoryTest, PowerDownDoesToo) {
  withEveryShortage([this] { channel_->power(IFD_POWER_DOWN); }, [this] { changeCard(); });
}

TEST_F(ChannelMemoryTest, ProtocolDoesToo) {
  withEveryShortage([this] { channel_->setProtocol(SCARD_PROTOCOL_T1); }, [this] { changeCard(); });
}

TEST_F(ChannelMemoryTest, AtrDoesToo) {
  remove();
  insert();  // not powered up: the driver has it
  reader_->answer(IOCTL_SMARTCARD_GET_ATTRIBUTE,
                  [this](const auto&) { return succeededWith(kAtr); });
  withEveryShortage([this] { channel_->attribute(SCARD_ATTR_ATR_STRING); },
                    [this] {
                      remove();
                      insert();
                      EXPECT_EQ(channel_->attribute(SCARD_ATTR_ATR_STRING).bytes, kAtr);
                    });
}

TEST_F(ChannelMemoryTest, WhatNeedsNoDriverNeedsNoMemory) {
  const ScarceMemory memory(0);
  EXPECT_EQ(channel_->presence(), IFD_SUCCESS);
  channel_->stopAwaiting();
  poll();
  reader_->removeCard();
  EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
  channel_->close();
  EXPECT_FALSE(memory.ranOut());
}

TEST(TableMemoryTest, ChannelIsOpenedOrNothingIsLeft) {
  const auto reader = std::make_shared<test::FakeReader>();
  const auto record = std::make_shared<test::FakeHostRecord>();
  ChannelTable table(
      {[&](const std::string& path, host::HostOptions options) {
         return test::FakeDriverHost::load(path, std::move(options), record, {{L"dev0", reader}});
       },
       [] { return std::string("/module.so"); }, [](auto, const auto&) {}});
  RESPONSECODE code = IFD_COMMUNICATION_ERROR;
  withEveryShortage(
      [&] {
        code = IFD_COMMUNICATION_ERROR;
        code = table.open(0, 0);
      },
      [&] {
        EXPECT_EQ(table.close(0), code == IFD_SUCCESS ? IFD_SUCCESS : IFD_NO_SUCH_DEVICE);
        EXPECT_EQ(record->broughtUp, record->takenDown);
      });
  EXPECT_EQ(code, IFD_SUCCESS);
  ASSERT_EQ(table.open(0, 0), IFD_SUCCESS);
  EXPECT_EQ(table.close(0), IFD_SUCCESS);
}

}  // namespace
}  // namespace zelta::pcsc
