// A card that leaves while the driver works on a request for it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <future>
#include <ostream>
#include <string>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/status.h"
#include "tests/pcsc/channel_fixture.h"

namespace zelta::pcsc {
namespace {

using test::failedWith;
using test::FakeReader;
using test::succeededWith;
using testing::ElementsAre;

struct CardCall {
  const char* name;
  std::uint32_t code;  // of its I/O control
  std::function<RESPONSECODE(Channel&)> make;
  RESPONSECODE whenTheCardLeaves;
};

RESPONSECODE send(Channel& channel) {
  const Bytes command = {0x00, 0xA4, 0x04, 0x00};
  Bytes answer(64);
  std::size_t size = 0;
  return channel.transmit({1, {command.data(), command.size()}, {answer.data(), answer.size()}},
                          &size);
}

// What the driver may say of a card that has just left, or of the next one.
host::IoResult validAnswer(const FakeReader::Request& request) {
  Bytes answer(request.input.begin(),
               request.input.begin() +
                   std::min<std::ptrdiff_t>(kTransmitHeaderSize,
                                            static_cast<std::ptrdiff_t>(request.input.size())));
  answer.insert(answer.end(), {0x90, 0x00});
  return succeededWith(answer);
}

const CardCall kCalls[] = {
    {"transmit", IOCTL_SMARTCARD_TRANSMIT, send, IFD_ICC_NOT_PRESENT},
    {"power-up", IOCTL_SMARTCARD_POWER,
     [](Channel& channel) { return channel.power(IFD_POWER_UP).code; }, IFD_ICC_NOT_PRESENT},
    {"reset", IOCTL_SMARTCARD_POWER, [](Channel& channel) { return channel.power(IFD_RESET).code; },
     IFD_ICC_NOT_PRESENT},
    {"power-down", IOCTL_SMARTCARD_POWER,
     [](Channel& channel) { return channel.power(IFD_POWER_DOWN).code; }, IFD_SUCCESS},
    {"protocol", IOCTL_SMARTCARD_SET_PROTOCOL,
     [](Channel& channel) { return channel.setProtocol(SCARD_PROTOCOL_T1); }, IFD_ICC_NOT_PRESENT},
};

void PrintTo(const CardCall& call, std::ostream* out) { *out << call.name; }

class RemovalTest : public test::ChannelTest, public testing::WithParamInterface<CardCall> {
 protected:
  // The card leaves while the driver works on the call, which it then answers so.
  RESPONSECODE callAndRemove(const FakeReader::Answer& answer) {
    reader_->answer(GetParam().code, [this, answer](const auto& request) {
      reader_->removeCard();
      return answer(request);
    });
    return GetParam().make(*channel_);
  }
  void useNextCard() {
    poll();  // for the removal
    answerPower(succeededWith(kAtr));
    reader_->answer(IOCTL_SMARTCARD_TRANSMIT, validAnswer);
    reader_->answer(IOCTL_SMARTCARD_SET_PROTOCOL, [](const auto&) { return succeededWith({}); });
    insert();
    EXPECT_EQ(channel_->power(IFD_POWER_UP).bytes, kAtr);
    EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T1), IFD_SUCCESS);
    EXPECT_THAT(transmit(1, {0x00, 0xA4}, 64).bytes, ElementsAre(0x90, 0x00));
  }
};

TEST_P(RemovalTest, EndsTheCallWithoutACardWhateverTheDriverAnswers) {
  const FakeReader::Answer answers[] = {
      validAnswer,
      [](const auto&) { return failedWith(status::kNoMedia); },
      [](const auto&) { return failedWith(kGenFailure); },
      [](const auto&) { return failedWith(host::kDeviceGone); },
  };
  for (const FakeReader::Answer& answer : answers) {
    insertAndPowerUp();
    EXPECT_EQ(callAndRemove(answer), GetParam().whenTheCardLeaves);
    EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
    useNextCard();
    remove();
  }
}

TEST_P(RemovalTest, NextCardIsShownOnceTheCallIsOver) {
  insertAndPowerUp();
  std::promise<void> goOn;
  auto called = std::async(std::launch::async, [&] {
    return callAndRemove([&](const auto& request) {
      goOn.get_future().wait();
      return validAnswer(request);
    });
  });
  poll();  // for the removal
  reader_->insertCard();
  ASSERT_NE(reader_->waitForWaiting(IOCTL_SMARTCARD_IS_ABSENT), nullptr);
  const std::size_t requests = reader_->count(GetParam().code);
  EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(GetParam().make(*channel_), GetParam().whenTheCardLeaves);
  EXPECT_EQ(reader_->count(GetParam().code), requests);
  goOn.set_value();
  EXPECT_EQ(called.get(), GetParam().whenTheCardLeaves);
  poll();  // for the card that is back
  EXPECT_EQ(channel_->presence(), IFD_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Calls, RemovalTest, testing::ValuesIn(kCalls), [](const auto& instance) {
  std::string name = instance.param.name;
  name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
  return name;
});

}  // namespace
}  // namespace zelta::pcsc
