// pcscd's calls on an open channel.
#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <future>

#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/reader_states.h"
#include "tests/pcsc/handler_fixture.h"

namespace zelta::test {
namespace {

using testing::ElementsAre;
using Clock = std::chrono::steady_clock;
using HandlerCallsTest = HandlerFixture;

TEST_F(HandlerCallsTest, MissingPointersAreRefused) {
  openWithCard();
  std::array<UCHAR, 64> bytes{};
  DWORD length = bytes.size();
  EXPECT_EQ(handler_->power(kLun, IFD_POWER_UP, nullptr, &length), IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(handler_->power(kLun, IFD_POWER_UP, bytes.data(), nullptr), IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(handler_->getCapabilities(kLun, TAG_IFD_ATR, nullptr, bytes.data()),
            IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(handler_->getCapabilities(kLun, TAG_IFD_ATR, &length, nullptr),
            IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(handler_->setCapabilities(kLun, SCARD_ATTR_DEVICE_IN_USE, 1, nullptr),
            IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(handler_->transmit(kLun, {1, 16}, bytes.data(), 4, bytes.data(), nullptr, nullptr),
            IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(handler_->transmit(kLun, {1, 16}, nullptr, 4, bytes.data(), &length, nullptr),
            IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(length, 0u);
  length = bytes.size();
  EXPECT_EQ(handler_->transmit(kLun, {1, 16}, bytes.data(), 4, nullptr, &length, nullptr),
            IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(handler_->control(kLun, 0, nullptr, 0, bytes.data(), 8, nullptr),
            IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(handler_->control(kLun, 0, nullptr, 0, nullptr, 8, &length), IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(handler_->control(kLun, 0, nullptr, 8, bytes.data(), 8, &length),
            IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

TEST_F(HandlerCallsTest, CardIsPoweredSpokenToAndRemoved) {
  openWithCard();
  Bytes atr;
  EXPECT_EQ(power(IFD_POWER_UP, &atr), IFD_SUCCESS);
  EXPECT_EQ(atr, CardAgent::usualAtr());
  Bytes answer;
  for (const DWORD protocol : {SCARD_PROTOCOL_T0, SCARD_PROTOCOL_T1}) {
    const DWORD number = protocol == SCARD_PROTOCOL_T0 ? 0 : 1;
    EXPECT_EQ(handler_->setProtocol(kLun, protocol, 0, 0, 0, 0), IFD_SUCCESS);
    EXPECT_EQ(transmit({0, 1, 2, 3}, &answer, number), IFD_SUCCESS);
    EXPECT_THAT(answer, ElementsAre(0, 1, 2, 3, 0x90, 0x00));
    EXPECT_EQ(received_.Protocol, number);
    EXPECT_EQ(received_.Length, sizeof(SCARD_IO_HEADER));
  }
  EXPECT_EQ(power(IFD_RESET, &atr), IFD_SUCCESS);
  EXPECT_EQ(power(IFD_POWER_DOWN, &atr), IFD_SUCCESS);
  EXPECT_TRUE(atr.empty());
  agent_.remove();
  waitForPresence(IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(transmit({0, 1, 2, 3}, &answer), IFD_ICC_NOT_PRESENT);
  EXPECT_TRUE(answer.empty());
  EXPECT_EQ(power(IFD_POWER_UP, &atr), IFD_ICC_NOT_PRESENT);
  EXPECT_TRUE(atr.empty());
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

TEST_F(HandlerCallsTest, CommandBeforeAnyPowerUpIsAnswered) {
  openWithCard();
  Bytes answer;
  EXPECT_EQ(transmit({0, 1, 2, 3}, &answer), IFD_SUCCESS);
  EXPECT_EQ(answer.size(), 6u);
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

TEST_F(HandlerCallsTest, ProtocolThatTheCardDoesNotOfferIsRefusedAndTheOtherWorks) {
  ASSERT_EQ(open(), IFD_SUCCESS);
  agent_.setCardIn({0x3B, 0x80, 0x01, 0x81});  // T=1 alone
  ASSERT_TRUE(agent_.connect());
  waitForPresence(IFD_SUCCESS);
  Bytes bytes;
  ASSERT_EQ(power(IFD_POWER_UP, &bytes), IFD_SUCCESS);
  EXPECT_EQ(handler_->setProtocol(kLun, SCARD_PROTOCOL_T0, 0, 0, 0, 0), IFD_PROTOCOL_NOT_SUPPORTED);
  EXPECT_EQ(transmit({0, 1, 2, 3}, &bytes), IFD_SUCCESS);
  EXPECT_EQ(handler_->setProtocol(kLun, SCARD_PROTOCOL_T1, 0, 0, 0, 0), IFD_SUCCESS);
  EXPECT_EQ(transmit({0, 1, 2, 3}, &bytes), IFD_SUCCESS);
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

TEST_F(HandlerCallsTest, BuffersThatAreTooSmallAreTold) {
  openWithCard();
  Bytes bytes(4);
  DWORD length = bytes.size();
  EXPECT_EQ(handler_->power(kLun, IFD_POWER_UP, bytes.data(), &length),
            IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(attribute(SCARD_ATTR_VENDOR_NAME, &bytes, 7), IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(attribute(SCARD_ATTR_VENDOR_NAME, &bytes, 8), IFD_SUCCESS);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "Vornhalt");
  EXPECT_EQ(attribute(SCARD_ATTR_MAX_IFSD, &bytes, 3), IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(attribute(SCARD_ATTR_MAX_IFSD, &bytes, 4), IFD_SUCCESS);
  EXPECT_THAT(bytes, ElementsAre(254, 0, 0, 0));
  EXPECT_EQ(attribute(TAG_IFD_SLOTS_NUMBER, &bytes, 0), IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(attribute(TAG_IFD_POLLING_THREAD_WITH_TIMEOUT, &bytes, 7),
            IFD_ERROR_INSUFFICIENT_BUFFER);
  std::array<UCHAR, 5> answer{};
  UCHAR command[] = {0, 1, 2, 3};
  length = answer.size();
  EXPECT_EQ(handler_->transmit(kLun, {1, 16}, command, 4, answer.data(), &length, nullptr),
            IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(
      handler_->control(kLun, CM_IOCTL_GET_FEATURE_REQUEST, nullptr, 0, answer.data(), 5, &length),
      IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(handler_->control(kLun, CM_IOCTL_GET_FEATURE_REQUEST, nullptr, 0, nullptr, 0, &length),
            IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

TEST_F(HandlerCallsTest, CommandsThatAreTooLongAreRefused) {
  openWithCard();
  Bytes answer;
  EXPECT_EQ(transmit(Bytes(MAX_BUFFER_SIZE_EXTENDED + 1), &answer), IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(transmit(Bytes(MAX_BUFFER_SIZE_EXTENDED - 2), &answer), IFD_SUCCESS);
  EXPECT_EQ(answer.size(), static_cast<std::size_t>(MAX_BUFFER_SIZE_EXTENDED));
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

TEST_F(HandlerCallsTest, AttributesCanBeSetWhereTheDriverTakesThem) {
  ASSERT_EQ(open(), IFD_SUCCESS);
  UCHAR value[] = {1, 0, 0, 0};
  EXPECT_EQ(handler_->setCapabilities(kLun, SCARD_ATTR_DEVICE_IN_USE, 4, value), IFD_SUCCESS);
  EXPECT_EQ(handler_->setCapabilities(kLun, SCARD_ATTR_VENDOR_NAME, 4, value), IFD_ERROR_TAG);
  EXPECT_EQ(handler_->setCapabilities(kLun, SCARD_ATTR_DEVICE_IN_USE, ~DWORD{0}, value),
            IFD_ERROR_SET_FAILURE);
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

TEST_F(HandlerCallsTest, StopFunctionEndsThePollThatIsYetToCome) {
  ASSERT_EQ(open(), IFD_SUCCESS);
  const auto poll =
      handler_->function<HandlerLibrary::PollFunction>(kLun, TAG_IFD_POLLING_THREAD_WITH_TIMEOUT);
  const auto stop =
      handler_->function<HandlerLibrary::StopFunction>(kLun, TAG_IFD_STOP_POLLING_THREAD);
  EXPECT_EQ(stop(kLun), IFD_SUCCESS);
  const auto begun = Clock::now();
  EXPECT_EQ(poll(kLun, kLong), IFD_SUCCESS);
  EXPECT_LT(Clock::now() - begun, std::chrono::milliseconds(kLong / 2));
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

TEST_F(HandlerCallsTest, ClosesDuringACommandOnceTheAgentHasAnswered) {
  openWithCard();
  std::promise<void> running;
  std::promise<void> goOn;
  agent_.respond([&](const Bytes& apdu) {
    running.set_value();
    goOn.get_future().wait();
    return apdu;
  });
  auto sent = std::async(std::launch::async, [this] {
    Bytes answer;
    return transmit({0, 1, 2, 3}, &answer);
  });
  running.get_future().wait();
  auto closed = std::async(std::launch::async, [this] { return handler_->close(kLun); });
  goOn.set_value();
  EXPECT_EQ(closed.get(), IFD_SUCCESS);
  EXPECT_EQ(sent.wait_for(std::chrono::milliseconds(kLong)), std::future_status::ready);
  agent_.die();
}

TEST_F(HandlerCallsTest, CallsFromManyThreadsAtOnce) {
  openWithCard();
  std::atomic<int> failures{0};
  std::vector<std::future<void>> callers;
  for (int i = 0; i < 4; ++i) {
    callers.push_back(std::async(std::launch::async, [this, &failures] {
      Bytes bytes(MAX_BUFFER_SIZE);
      UCHAR value[] = {1, 0, 0, 0};
      for (int round = 0; round < 50; ++round) {
        DWORD length = bytes.size();
        if (handler_->presence(kLun) != IFD_SUCCESS) ++failures;
        if (handler_->setCapabilities(kLun, SCARD_ATTR_DEVICE_IN_USE, 4, value) != IFD_SUCCESS) {
          ++failures;
        }
        if (handler_->getCapabilities(kLun, SCARD_ATTR_MAX_IFSD, &length, bytes.data()) !=
            IFD_SUCCESS) {
          ++failures;
        }
      }
    }));
  }
  for (auto& caller : callers) caller.get();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

}  // namespace
}  // namespace zelta::test
