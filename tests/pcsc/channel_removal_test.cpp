// A card that leaves while the driver works on a request for it.
#include <functional>
#include <future>

#include "contract/reader_states.h"
#include "tests/pcsc/channel_fixture.h"

namespace zelta::pcsc {
namespace {

using test::failedWith;
using test::FakeReader;
using test::kAtr;
using test::kGenFailure;
using test::succeededWith;
using testing::ElementsAre;

struct CardCall {
  const char* name;
  std::uint32_t code;  // of its I/O control
  std::function<RESPONSECODE(Channel&)> make;
  RESPONSECODE whenTheCardLeaves;
};

RESPONSECODE send(Channel& channel) {
  const Reply reply = test::transmit(channel, 1, {0x00, 0xA4, 0x04, 0x00}, 64);
  EXPECT_TRUE(reply.bytes.empty() || reply.code == IFD_SUCCESS);
  return reply.code;
}

// A possible answer of the driver for a card that has just left, or for the next one.
host::IoResult validAnswer(const FakeReader::Request& request) {
  Bytes answer = request.input;
  if (answer.size() > kTransmitHeaderSize) answer.resize(kTransmitHeaderSize);
  answer.insert(answer.end(), {0x90, 0x00});
  return succeededWith(answer);
}

const CardCall kCalls[] = {
    {"Transmit", IOCTL_SMARTCARD_TRANSMIT, send, IFD_ICC_NOT_PRESENT},
    {"PowerUp", IOCTL_SMARTCARD_POWER,
     [](Channel& channel) { return channel.power(IFD_POWER_UP).code; }, IFD_ICC_NOT_PRESENT},
    {"Reset", IOCTL_SMARTCARD_POWER, [](Channel& channel) { return channel.power(IFD_RESET).code; },
     IFD_ICC_NOT_PRESENT},
    {"PowerDown", IOCTL_SMARTCARD_POWER,
     [](Channel& channel) { return channel.power(IFD_POWER_DOWN).code; }, IFD_SUCCESS},
    {"Protocol", IOCTL_SMARTCARD_SET_PROTOCOL,
     [](Channel& channel) { return channel.setProtocol(SCARD_PROTOCOL_T1); }, IFD_ICC_NOT_PRESENT},
};

class RemovalTest : public test::ChannelTest, public testing::WithParamInterface<CardCall> {
 protected:
  // Removes the card while the driver works on the call, which it then answers with `answer`.
  RESPONSECODE callAndRemove(const FakeReader::Answer& answer) {
    reader_->answer(GetParam().code, [this, answer](const auto& request) {
      reader_->removeCard();
      return answer(request);
    });
    return GetParam().make(*channel_);
  }
  void useNextCard() {
    poll();  // for the removal
    reader_->answerWith(IOCTL_SMARTCARD_POWER, succeededWith(kAtr));
    reader_->answer(IOCTL_SMARTCARD_TRANSMIT, validAnswer);
    reader_->answerWith(IOCTL_SMARTCARD_SET_PROTOCOL, succeededWith({}));
    insert();
    EXPECT_EQ(channel_->power(IFD_POWER_UP).bytes, kAtr);
    EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T1), IFD_SUCCESS);
    EXPECT_THAT(test::transmit(*channel_, 1, {0x00, 0xA4}, 64).bytes, ElementsAre(0x90, 0x00));
  }
};

TEST_P(RemovalTest, DuringACall_EndsItWithoutACardWhateverTheDriverAnswers) {
  const FakeReader::Answer answers[] = {
      validAnswer,
      [](const auto&) { return failedWith(status::kNoMedia); },
      [](const auto&) { return failedWith(kGenFailure); },
      [](const auto&) { return failedWith(host::kDeviceGone); },
  };
  for (const FakeReader::Answer& answer : answers) {
    insertAndPowerUp();
    EXPECT_EQ(callAndRemove(answer), GetParam().whenTheCardLeaves);
    EXPECT_EQ(channel_->checkPresence(), IFD_ICC_NOT_PRESENT);
    useNextCard();
    remove();
  }
}

TEST_P(RemovalTest, DuringACall_ShowsTheNextCardAfterIt) {
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
  EXPECT_EQ(channel_->checkPresence(), IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(GetParam().make(*channel_), GetParam().whenTheCardLeaves);
  EXPECT_EQ(reader_->count(GetParam().code), requests);
  goOn.set_value();
  EXPECT_EQ(called.get(), GetParam().whenTheCardLeaves);
  poll();  // for the card that is back
  EXPECT_EQ(channel_->checkPresence(), IFD_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Calls, RemovalTest, testing::ValuesIn(kCalls),
                         [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace zelta::pcsc
