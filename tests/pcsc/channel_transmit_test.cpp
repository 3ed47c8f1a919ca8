// Commands: the protocol under which they are sent, and their answers.
#include "contract/reader_states.h"
#include "tests/pcsc/channel_fixture.h"

namespace zelta::pcsc {
namespace {

using test::failedWith;
using test::succeededWith;
using testing::ElementsAre;
using testing::IsEmpty;

class TransmitTest : public test::ChannelTest {
 protected:
  static Bytes answerOf(std::uint32_t protocol, const Bytes& response) {
    Bytes answer = numberBytes(protocol);
    answer.insert(answer.end(), {8, 0, 0, 0});
    answer.insert(answer.end(), response.begin(), response.end());
    return answer;
  }
  void answerTransmit(const host::IoResult& result) {
    reader_->answerWith(IOCTL_SMARTCARD_TRANSMIT, result);
  }
  void answerProtocol(const Bytes& value) {
    reader_->answerWith(IOCTL_SMARTCARD_GET_ATTRIBUTE, succeededWith(value));
  }
  // Answers like a driver with this current protocol.
  void answerUnder(std::uint32_t protocol) {
    reader_->answer(IOCTL_SMARTCARD_TRANSMIT, [protocol](const auto& request) {
      if (loadLittleEndian(request.input.data()) != protocol) {
        return failedWith(status::kInvalidDeviceState);
      }
      return succeededWith(answerOf(protocol, {0x90, 0x00}));
    });
    answerProtocol(numberBytes(protocol));
  }
  Reply send(DWORD pci = 1, std::size_t capacity = MAX_BUFFER_SIZE_EXTENDED) {
    return test::transmit(*channel_, pci, {0x00, 0xA4, 0x04, 0x00}, capacity);
  }
  void connect(DWORD protocol = SCARD_PROTOCOL_T1) {
    insertAndPowerUp();
    ASSERT_EQ(channel_->setProtocol(protocol), IFD_SUCCESS);
  }
  std::size_t sent() const { return reader_->count(IOCTL_SMARTCARD_TRANSMIT); }
};

TEST_F(TransmitTest, Command_FollowsAHeaderWithTheChosenMask) {
  connect(SCARD_PROTOCOL_T1);
  answerUnder(SCARD_PROTOCOL_T1);
  EXPECT_THAT(send().bytes, ElementsAre(0x90, 0x00));
  const auto requests = reader_->requests(IOCTL_SMARTCARD_TRANSMIT);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_THAT(requests[0].input, ElementsAre(2, 0, 0, 0, 8, 0, 0, 0, 0x00, 0xA4, 0x04, 0x00));
  EXPECT_EQ(requests[0].outputCapacity, MAX_BUFFER_SIZE_EXTENDED + kTransmitHeaderSize);
}

TEST_F(TransmitTest, ProtocolOfTheHeader_FollowsWhatWasChosenAndReset) {
  connect(SCARD_PROTOCOL_T0);
  const auto expectSentUnder = [this](std::uint8_t protocol, DWORD pci) {
    const std::size_t before = sent();
    answerUnder(protocol);
    EXPECT_EQ(send(pci).code, IFD_SUCCESS);
    EXPECT_EQ(sent(), before + 1) << "sent at once";
  };
  expectSentUnder(1, 0);
  ASSERT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T1), IFD_SUCCESS);
  reader_->answerWith(IOCTL_SMARTCARD_SET_PROTOCOL, failedWith(status::kNotSupported));
  EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T0), IFD_PROTOCOL_NOT_SUPPORTED);
  expectSentUnder(2, 1);
  channel_->power(IFD_RESET);
  expectSentUnder(0, 1);
  expectSentUnder(0, 4);  // raw
}

TEST_F(TransmitTest, OtherProtocolNumbers_AreRefused) {
  connect();
  for (const DWORD protocol : {2, 3, 14, 15}) {
    EXPECT_EQ(send(protocol).code, IFD_PROTOCOL_NOT_SUPPORTED) << protocol;
  }
  EXPECT_EQ(sent(), 0u);
}

TEST_F(TransmitTest, BeforePowerUp_TheDriverIsAskedForItsProtocol) {
  insert();
  answerUnder(1);  // as its answer to reset says: T=1 by number
  EXPECT_THAT(send().bytes, ElementsAre(0x90, 0x00));
  const auto requests = reader_->requests(IOCTL_SMARTCARD_TRANSMIT);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].input[0], 0);
  EXPECT_EQ(requests[1].input[0], 1);
}

TEST_F(TransmitTest, ProtocolThatTheDriverNamed_IsRemembered) {
  connect(SCARD_PROTOCOL_T1);
  answerUnder(1);  // the card announced itself anew meanwhile
  EXPECT_EQ(send().code, IFD_SUCCESS);
  EXPECT_EQ(send().code, IFD_SUCCESS);
  EXPECT_EQ(sent(), 3u);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_GET_ATTRIBUTE), 1u);
}

TEST_F(TransmitTest, RefusalUnderTheRightProtocol_IsAnErrorAndNotRepeated) {
  connect();
  answerTransmit(failedWith(status::kInvalidDeviceState));
  for (const Bytes& protocol : {numberBytes(2), Bytes{1, 0, 0}}) {
    answerProtocol(protocol);
    EXPECT_EQ(send().code, IFD_COMMUNICATION_ERROR);
  }
  EXPECT_EQ(sent(), 2u);
}

TEST_F(TransmitTest, RefusalOfACardThatWasSwapped_IsNotRepeatedForTheNext) {
  connect();
  reader_->answer(IOCTL_SMARTCARD_TRANSMIT, [this](const auto&) {
    reader_->removeCard();
    reader_->insertCard();
    return failedWith(status::kInvalidDeviceState);
  });
  EXPECT_EQ(send().code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(sent(), 1u);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_GET_ATTRIBUTE), 0u);
}

TEST_F(TransmitTest, RefusalOfACardThatLeavesWhileTheProtocolIsAsked_IsNotRepeated) {
  connect();
  answerTransmit(failedWith(status::kInvalidDeviceState));
  reader_->answer(IOCTL_SMARTCARD_GET_ATTRIBUTE, [this](const auto&) {
    reader_->removeCard();
    return succeededWith(numberBytes(1));
  });
  EXPECT_EQ(send().code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(sent(), 1u);
}

TEST_F(TransmitTest, WithoutACard_NothingIsSent) {
  EXPECT_EQ(send().code, IFD_ICC_NOT_PRESENT);
  connect();
  reader_->removeCard();
  EXPECT_EQ(send().code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(sent(), 0u);
}

TEST_F(TransmitTest, AnswerLargerThanTheBuffer_IsInsufficientBuffer) {
  connect();
  answerTransmit({framework::kOk, 8 + 11, {}});
  EXPECT_EQ(send(1, 10).code, IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(reader_->requests(IOCTL_SMARTCARD_TRANSMIT)[0].outputCapacity, 18u);
}

TEST_F(TransmitTest, LongestAnswer_IsGiven) {
  connect();
  const Bytes response(MAX_BUFFER_SIZE_EXTENDED, 0x5A);
  answerTransmit(succeededWith(answerOf(2, response)));
  EXPECT_EQ(send().bytes, response);
}

TEST_F(TransmitTest, AnswersWithoutAValidHeader_AreErrors) {
  connect();
  const Bytes answers[] = {
      {},
      {2, 0, 0, 0, 8, 0, 0},              // shorter than the header
      {2, 0, 0, 0, 9, 0, 0, 0, 0x90, 0},  // another header length
  };
  for (const Bytes& answer : answers) {
    answerTransmit(succeededWith(answer));
    EXPECT_EQ(send().code, IFD_COMMUNICATION_ERROR) << answer.size();
  }
  ASSERT_EQ(log_->lines().size(), 3u);
  EXPECT_EQ(log_->lines()[1], "2 the driver's answer to a command has no valid header (7 bytes)");
}

TEST_F(TransmitTest, AnswerWithAnotherProtocol_IsGivenAndTheNextCommandSentWithThat) {
  connect();
  answerTransmit(succeededWith({1, 0, 0, 0, 8, 0, 0, 0, 0x90, 0}));
  EXPECT_THAT(send().bytes, ElementsAre(0x90, 0));
  EXPECT_THAT(send().bytes, ElementsAre(0x90, 0));
  const auto requests = reader_->requests(IOCTL_SMARTCARD_TRANSMIT);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(loadLittleEndian(requests[0].input.data()), SCARD_PROTOCOL_T1);
  EXPECT_EQ(loadLittleEndian(requests[1].input.data()), 1u);
}

TEST_F(TransmitTest, EmptyCommand_IsTheDriversToAnswer) {
  connect();
  answerTransmit(succeededWith(answerOf(2, {0x69, 0x01})));
  EXPECT_THAT(test::transmit(*channel_, 1, {}, 100).bytes, ElementsAre(0x69, 0x01));
  EXPECT_EQ(reader_->requests(IOCTL_SMARTCARD_TRANSMIT)[0].input.size(), kTransmitHeaderSize);
}

}  // namespace
}  // namespace zelta::pcsc
