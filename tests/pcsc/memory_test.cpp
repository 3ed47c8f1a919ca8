// Memory that runs out, at every possible point of pcscd's calls: they fail without leftovers, and
// the next call and the next card work.
#include <algorithm>
#include <array>
#include <functional>

#include "contract/attributes.h"
#include "contract/reader_states.h"
#include "tests/pcsc/channel_fixture.h"
#include "tests/pcsc/handler_fixture.h"
#include "tests/support/scarce_memory.h"

namespace zelta::test {
namespace {

using pcsc::Channel;
using testing::ElementsAre;

struct CardCall {
  const char* name;
  std::function<void(Channel&)> make;
  bool poweredUp = true;  // the card; otherwise the driver has its ATR
};

const CardCall kCardCalls[] = {
    {"Command",
     [](Channel& channel) {
       transmit(channel, 1, {0x00, 0xA4}, 258);
     }},
    {"Reset", [](Channel& channel) { channel.power(IFD_RESET); }},
    {"PowerDown", [](Channel& channel) { channel.power(IFD_POWER_DOWN); }},
    {"Protocol", [](Channel& channel) { (void)channel.setProtocol(SCARD_PROTOCOL_T1); }},
    {"Atr", [](Channel& channel) { channel.attribute(SCARD_ATTR_ATR_STRING); }, false},
};

class ChannelMemoryTest : public ChannelTest, public testing::WithParamInterface<CardCall> {
 protected:
  void SetUp() override {
    reader_->answer(IOCTL_SMARTCARD_TRANSMIT, [](const FakeReader::Request& request) {
      Bytes answer(request.input.begin(), request.input.begin() + kTransmitHeaderSize);
      answer.insert(answer.end(), {0x90, 0x00});
      return succeededWith(answer);
    });
    reader_->answer(IOCTL_SMARTCARD_GET_ATTRIBUTE, [](const auto&) { return succeededWith(kAtr); });
  }
};

TEST_P(ChannelMemoryTest, RunsOut_AndTheNextCardWorks) {
  for (MemorySweep sweep; sweep.next();) {
    insert();
    if (GetParam().poweredUp) channel_->power(IFD_POWER_UP);
    sweep.run([&] { GetParam().make(*channel_); });
    remove();
    insertAndPowerUp();
    EXPECT_THAT(transmit(*channel_, 1, {0x00, 0xA4}, 258).bytes, ElementsAre(0x90, 0x00));
    remove();
  }
}

INSTANTIATE_TEST_SUITE_P(Calls, ChannelMemoryTest, testing::ValuesIn(kCardCalls),
                         [](const auto& each) { return each.param.name; });

using ChannelWithoutMemoryTest = ChannelTest;

TEST_F(ChannelWithoutMemoryTest, WhatNeedsNoDriver_NeedsNoMemory) {
  insert();
  const ScarceMemory memory(0);
  EXPECT_EQ(channel_->checkPresence(), IFD_SUCCESS);
  channel_->stopAwaiting();
  poll();
  reader_->removeCard();
  EXPECT_EQ(channel_->checkPresence(), IFD_ICC_NOT_PRESENT);
  channel_->close();
  EXPECT_FALSE(memory.ranOut());
}

using TableMemoryTest = TableTest;

TEST_F(TableMemoryTest, RunsOut_AndAChannelIsOpenOrNothingIsLeft) {
  RESPONSECODE code = IFD_COMMUNICATION_ERROR;
  for (MemorySweep sweep; sweep.next();) {
    code = IFD_COMMUNICATION_ERROR;
    sweep.run([&] { code = table_.open(kLun, 0); });
    EXPECT_EQ(table_.close(kLun), code == IFD_SUCCESS ? IFD_SUCCESS : IFD_NO_SUCH_DEVICE);
    EXPECT_EQ(record_->broughtUp, record_->takenDown);
  }
  EXPECT_EQ(code, IFD_SUCCESS);
}

// --- The functions that pcscd calls, on the real driver ---

// The test's own buffers, made before memory is scarce.
struct Buffers {
  std::array<UCHAR, 4> command{0, 1, 2, 0};
  std::array<UCHAR, 512> bytes{};
  DWORD length = 0;
};

constexpr DWORD kLun = 0;
constexpr RESPONSECODE kForeignAnswer = 1;  // no code of the handler's

RESPONSECODE send(const HandlerLibrary& handler, Buffers& buffers) {
  ++buffers.command[3];  // an answer to an earlier one would show
  const RESPONSECODE code = handler.transmit(kLun, {1, 16}, buffers.command.data(), 4,
                                             buffers.bytes.data(), &buffers.length, nullptr);
  const bool own = buffers.length == 6 && std::equal(buffers.command.begin(), buffers.command.end(),
                                                     buffers.bytes.begin());
  return code == IFD_SUCCESS && !own ? kForeignAnswer : code;
}

struct HandlerCall {
  const char* name;
  RESPONSECODE (*make)(const HandlerLibrary& handler, Buffers& buffers);
  RESPONSECODE failure;  // if the driver's host found no memory
};

const HandlerCall kHandlerCalls[] = {
    {"Command", send, IFD_COMMUNICATION_ERROR},
    {"Attribute",
     [](const HandlerLibrary& handler, Buffers& buffers) {
       return handler.getCapabilities(kLun, SCARD_ATTR_VENDOR_NAME, &buffers.length,
                                      buffers.bytes.data());
     },
     IFD_COMMUNICATION_ERROR},
    {"SettingAnAttribute",
     [](const HandlerLibrary& handler, Buffers& buffers) {
       return handler.setCapabilities(kLun, SCARD_ATTR_DEVICE_IN_USE, 4, buffers.bytes.data());
     },
     IFD_ERROR_SET_FAILURE},
    {"Protocol",
     [](const HandlerLibrary& handler, Buffers&) {
       return handler.setProtocol(kLun, SCARD_PROTOCOL_T1, 0, 0, 0, 0);
     },
     IFD_COMMUNICATION_ERROR},
    {"Control",
     [](const HandlerLibrary& handler, Buffers& buffers) {
       return handler.control(kLun, CM_IOCTL_GET_FEATURE_REQUEST, nullptr, 0, buffers.bytes.data(),
                              buffers.bytes.size(), &buffers.length);
     },
     IFD_COMMUNICATION_ERROR},
};

class HandlerMemoryTest : public HandlerFixture, public testing::WithParamInterface<HandlerCall> {
 protected:
  RESPONSECODE call() {
    buffers_.length = buffers_.bytes.size();
    return GetParam().make(*handler_, buffers_);
  }
  void powerUp() {
    Bytes atr;
    ASSERT_EQ(power(IFD_POWER_UP, &atr), IFD_SUCCESS);
  }
  // Call after an interrupted exchange with the agent.
  void reconnect() {
    agent_.die();
    waitForPresence(IFD_ICC_NOT_PRESENT);
    ASSERT_TRUE(agent_.connect());
    waitForPresence(IFD_SUCCESS);
    powerUp();
  }

  Buffers buffers_;
};

TEST_P(HandlerMemoryTest, RunsOut_AndTheCallGivesACodeAndWorksAgain) {
  openWithCard();
  powerUp();
  for (MemorySweep sweep; sweep.next();) {
    RESPONSECODE code = IFD_SUCCESS;
    sweep.run([&] { code = call(); });
    // The driver itself may find no memory in the middle of an exchange: the card counts as gone.
    const bool broken = code == IFD_ICC_NOT_PRESENT;
    // A shortage that only prevented a further thread does not fail the call.
    EXPECT_TRUE(code == IFD_SUCCESS || (sweep.ranOut() && (code == IFD_COMMUNICATION_ERROR ||
                                                           code == GetParam().failure || broken)))
        << code << " with " << sweep.allocations();
    if (broken) {
      ASSERT_NO_FATAL_FAILURE(reconnect());
    }
    EXPECT_EQ(call(), IFD_SUCCESS) << sweep.allocations();
  }
}

INSTANTIATE_TEST_SUITE_P(Calls, HandlerMemoryTest, testing::ValuesIn(kHandlerCalls),
                         [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace zelta::test
