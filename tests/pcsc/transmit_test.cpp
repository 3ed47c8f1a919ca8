#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/status.h"
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

  void answerTransmit(host::IoResult result) {
    reader_->answer(IOCTL_SMARTCARD_TRANSMIT, [result](const auto&) { return result; });
  }
  // Answers like a driver with this current protocol.
  void answerUnder(std::uint32_t protocol) {
    reader_->answer(IOCTL_SMARTCARD_TRANSMIT, [protocol](const auto& request) {
      if (loadLittleEndian(request.input.data()) != protocol)
        return failedWith(status::kInvalidDeviceState);
      return succeededWith(answerOf(protocol, {0x90, 0x00}));
    });
    reader_->answer(IOCTL_SMARTCARD_GET_ATTRIBUTE,
                    [protocol](const auto&) { return succeededWith(numberBytes(protocol)); });
  }

  Reply send(DWORD pci = 1, std::size_t capacity = MAX_BUFFER_SIZE_EXTENDED) {
    return transmit(pci, {0x00, 0xA4, 0x04, 0x00}, capacity);
  }

  void connect(DWORD protocol = SCARD_PROTOCOL_T1) {
    insertAndPowerUp();
    ASSERT_EQ(channel_->setProtocol(protocol), IFD_SUCCESS);
  }
};

TEST_F(TransmitTest, CommandGoesBehindTheHeaderWithTheChosenMask) {
  connect(SCARD_PROTOCOL_T1);
  answerUnder(SCARD_PROTOCOL_T1);
  const Reply reply = send();
  EXPECT_EQ(reply.code, IFD_SUCCESS);
  EXPECT_THAT(reply.bytes, ElementsAre(0x90, 0x00));
  const auto requests = reader_->requests(IOCTL_SMARTCARD_TRANSMIT);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_THAT(requests[0].input, ElementsAre(2, 0, 0, 0, 8, 0, 0, 0, 0x00, 0xA4, 0x04, 0x00));
  EXPECT_EQ(requests[0].outputCapacity, MAX_BUFFER_SIZE_EXTENDED + kTransmitHeaderSize);
}

TEST_F(TransmitTest, T0HasMaskOneAndNumberNought) {
  connect(SCARD_PROTOCOL_T0);
  answerUnder(SCARD_PROTOCOL_T0);
  const Reply reply = send(0);
  EXPECT_EQ(reply.code, IFD_SUCCESS);
  EXPECT_THAT(reader_->requests(IOCTL_SMARTCARD_TRANSMIT)[0].input[0], 1);
}

TEST_F(TransmitTest, RawCommandsGoUnderTheDriversProtocol) {
  insertAndPowerUp();
  answerUnder(0);
  const Reply reply = send(4);
  EXPECT_EQ(reply.code, IFD_SUCCESS);
}

TEST_F(TransmitTest, OtherProtocolNumbersAreRefused) {
  connect();
  for (const DWORD protocol : {2, 3, 14, 15}) {
    EXPECT_EQ(send(protocol).code, IFD_PROTOCOL_NOT_SUPPORTED) << protocol;
  }
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_TRANSMIT), 0u);
}

TEST_F(TransmitTest, AfterAPowerUpTheProtocolIsNought) {
  connect();
  channel_->power(IFD_RESET);
  answerUnder(0);
  EXPECT_EQ(send().code, IFD_SUCCESS);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_TRANSMIT), 1u);
}

TEST_F(TransmitTest, RefusedProtocolLeavesTheOneBefore) {
  connect(SCARD_PROTOCOL_T1);
  reader_->answer(IOCTL_SMARTCARD_SET_PROTOCOL,
                  [](const auto&) { return failedWith(status::kNotSupported); });
  EXPECT_EQ(channel_->setProtocol(SCARD_PROTOCOL_T0), IFD_PROTOCOL_NOT_SUPPORTED);
  answerUnder(SCARD_PROTOCOL_T1);
  EXPECT_EQ(send().code, IFD_SUCCESS);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_TRANSMIT), 1u);
}

TEST_F(TransmitTest, BeforePowerUpTheDriverIsAskedForItsProtocol) {
  insert();
  answerUnder(1);  // as its answer to reset says: T=1 by number
  const Reply reply = send();
  EXPECT_EQ(reply.code, IFD_SUCCESS);
  EXPECT_THAT(reply.bytes, ElementsAre(0x90, 0x00));
  const auto requests = reader_->requests(IOCTL_SMARTCARD_TRANSMIT);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].input[0], 0);
  EXPECT_EQ(requests[1].input[0], 1);
}

TEST_F(TransmitTest, ProtocolThatTheDriverNamedIsRemembered) {
  connect(SCARD_PROTOCOL_T1);
  answerUnder(1);  // the card announced itself anew meanwhile
  EXPECT_EQ(send().code, IFD_SUCCESS);
  EXPECT_EQ(send().code, IFD_SUCCESS);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_TRANSMIT), 3u);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_GET_ATTRIBUTE), 1u);
}

TEST_F(TransmitTest, RefusalUnderTheRightProtocolIsAnErrorAndNotRepeated) {
  connect();
  answerTransmit(failedWith(status::kInvalidDeviceState));
  reader_->answer(IOCTL_SMARTCARD_GET_ATTRIBUTE,
                  [](const auto&) { return succeededWith(numberBytes(2)); });
  EXPECT_EQ(send().code, IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_TRANSMIT), 1u);
}

TEST_F(TransmitTest, RefusalIsNotRepeatedForAnotherCard) {
  connect();
  reader_->answer(IOCTL_SMARTCARD_TRANSMIT, [this](const auto&) {
    reader_->removeCard();
    reader_->insertCard();
    return failedWith(status::kInvalidDeviceState);
  });
  EXPECT_EQ(send().code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_TRANSMIT), 1u);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_GET_ATTRIBUTE), 0u);
}

TEST_F(TransmitTest, RefusalIsNotRepeatedForACardSwappedWhileTheProtocolIsAsked) {
  connect();
  answerTransmit(failedWith(status::kInvalidDeviceState));
  reader_->answer(IOCTL_SMARTCARD_GET_ATTRIBUTE, [this](const auto&) {
    reader_->removeCard();
    return succeededWith(numberBytes(1));
  });
  EXPECT_EQ(send().code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_TRANSMIT), 1u);
}

TEST_F(TransmitTest, ShortProtocolAnswerIsNotUsed) {
  connect();
  answerTransmit(failedWith(status::kInvalidDeviceState));
  reader_->answer(IOCTL_SMARTCARD_GET_ATTRIBUTE, [](const auto&) {
    return succeededWith({1, 0, 0});
  });
  EXPECT_EQ(send().code, IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_TRANSMIT), 1u);
}

TEST_F(TransmitTest, NoCommandWithoutACard) {
  EXPECT_EQ(send().code, IFD_ICC_NOT_PRESENT);
  connect();
  reader_->removeCard();
  EXPECT_EQ(send().code, IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_TRANSMIT), 0u);
}

// The driver's own for a pulled card; it reports the removal first.
TEST_F(TransmitTest, AnswerOfACardThatWasPulledMeanwhileIsNotGiven) {
  connect();
  reader_->answer(IOCTL_SMARTCARD_TRANSMIT, [this](const auto&) {
    reader_->removeCard();
    return succeededWith(answerOf(2, {0x69, 0x01}));
  });
  const Reply reply = send();
  EXPECT_EQ(reply.code, IFD_ICC_NOT_PRESENT);
  EXPECT_THAT(reply.bytes, IsEmpty());
}

TEST_F(TransmitTest, NoMediaAndNoDeviceAreACardThatLeftAndEntersAgain) {
  connect();
  for (const framework::HRESULT status : {status::kNoMedia, host::kDeviceGone}) {
    const std::size_t before = reader_->count(IOCTL_SMARTCARD_TRANSMIT);
    answerTransmit(failedWith(status));
    EXPECT_EQ(send().code, IFD_ICC_NOT_PRESENT);
    EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
    EXPECT_EQ(send().code, IFD_ICC_NOT_PRESENT);
    EXPECT_EQ(reader_->count(IOCTL_SMARTCARD_TRANSMIT), before + 1);
    poll();
    EXPECT_EQ(channel_->presence(), IFD_ICC_NOT_PRESENT);
    poll();
    EXPECT_EQ(channel_->presence(), IFD_SUCCESS);
    EXPECT_EQ(channel_->power(IFD_POWER_UP).code, IFD_SUCCESS);
  }
}

TEST_F(TransmitTest, OtherFailuresAreErrorsAndTheCardStays) {
  connect();
  const std::pair<framework::HRESULT, RESPONSECODE> failures[] = {
      {kGenFailure, IFD_COMMUNICATION_ERROR},
      {host::kTimedOut, IFD_RESPONSE_TIMEOUT},
      {framework::hresult(0x8007139F), IFD_COMMUNICATION_ERROR},
  };
  for (const auto& [status, code] : failures) {
    answerTransmit(failedWith(status));
    EXPECT_EQ(send().code, code) << std::hex << status;
    EXPECT_EQ(channel_->presence(), IFD_SUCCESS);
  }
}

TEST_F(TransmitTest, AnswerLargerThanTheBufferIsInsufficientBuffer) {
  connect();
  answerTransmit({framework::kOk, 8 + 11, {}});
  EXPECT_EQ(send(1, 10).code, IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(reader_->requests(IOCTL_SMARTCARD_TRANSMIT)[0].outputCapacity, 18u);
}

TEST_F(TransmitTest, LongestAnswerIsGiven) {
  connect();
  const Bytes response(MAX_BUFFER_SIZE_EXTENDED, 0x5A);
  answerTransmit(succeededWith(answerOf(2, response)));
  EXPECT_EQ(send().bytes, response);
}

TEST_F(TransmitTest, AnswersWithoutAValidHeaderAreErrors) {
  connect();
  const Bytes answers[] = {
      {},
      {2, 0, 0, 0, 8, 0, 0},              // shorter than the header
      {1, 0, 0, 0, 8, 0, 0, 0, 0x90, 0},  // another protocol
      {2, 0, 0, 0, 9, 0, 0, 0, 0x90, 0},  // another header length
  };
  for (const Bytes& answer : answers) {
    answerTransmit(succeededWith(answer));
    EXPECT_EQ(send().code, IFD_COMMUNICATION_ERROR) << answer.size();
  }
  ASSERT_EQ(log_->lines().size(), 4u);
  EXPECT_EQ(log_->lines()[1], "2 the driver's answer to a command has no valid header (7 bytes)");
}

TEST_F(TransmitTest, EmptyCommandIsTheDriversToAnswer) {
  connect();
  answerTransmit(succeededWith(answerOf(2, {0x69, 0x01})));
  EXPECT_THAT(transmit(1, {}, 100).bytes, ElementsAre(0x69, 0x01));
  EXPECT_EQ(reader_->requests(IOCTL_SMARTCARD_TRANSMIT)[0].input.size(), kTransmitHeaderSize);
}

}  // namespace
}  // namespace zelta::pcsc
