#include "tests/pcsc/handler_library.h"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <sstream>

namespace zelta::test {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;
using Bytes = CardAgent::Bytes;
using Clock = std::chrono::steady_clock;

constexpr DWORD kLun = 0;
constexpr DWORD kOtherLun = 0x10000;
constexpr int kLong = 30000;  // milliseconds

class HandlerLibraryTest : public testing::Test {
 protected:
  RESPONSECODE open(const char* name = "zelta:0", DWORD lun = kLun) {
    std::string writable = name;
    return handler_->createByName(lun, writable.data());
  }
  void openWithCard() {
    ASSERT_EQ(open(), IFD_SUCCESS);
    agent_.setCardIn();
    ASSERT_TRUE(agent_.connect());
    waitForPresence(IFD_SUCCESS);
  }
  // As pcscd's event thread does.
  void waitForPresence(RESPONSECODE wanted) {
    const auto poll =
        handler_->function<HandlerLibrary::PollFunction>(kLun, TAG_IFD_POLLING_THREAD_WITH_TIMEOUT);
    const auto end = Clock::now() + std::chrono::milliseconds(kLong);
    while (handler_->presence(kLun) != wanted) {
      ASSERT_LT(Clock::now(), end);
      ASSERT_EQ(poll(kLun, kLong), IFD_SUCCESS);
    }
  }
  RESPONSECODE power(DWORD action, Bytes* atr) {
    atr->assign(MAX_ATR_SIZE, 0);
    DWORD length = atr->size();
    const RESPONSECODE code = handler_->power(kLun, action, atr->data(), &length);
    atr->resize(length);
    return code;
  }
  RESPONSECODE transmit(const Bytes& command, Bytes* answer, DWORD protocol = 1) {
    Bytes tx = command;
    answer->assign(MAX_BUFFER_SIZE_EXTENDED, 0);
    DWORD length = answer->size();
    received_ = {3, 0};  // as pcscd leaves it
    const RESPONSECODE code =
        handler_->transmit(kLun, {protocol, sizeof(SCARD_IO_HEADER)}, tx.data(), tx.size(),
                           answer->data(), &length, &received_);
    answer->resize(length);
    return code;
  }
  RESPONSECODE attribute(DWORD tag, Bytes* value, DWORD capacity = MAX_BUFFER_SIZE) {
    value->assign(capacity, 0);
    DWORD length = capacity;
    const RESPONSECODE code = handler_->getCapabilities(kLun, tag, &length, value->data());
    value->resize(code == IFD_SUCCESS ? length : 0);
    return code;
  }

  HandlerWorld world_;
  std::optional<HandlerLibrary> handler_{std::in_place};
  CardAgent agent_;
  SCARD_IO_HEADER received_ = {};
};

struct ClosePipe {
  void operator()(FILE* pipe) const { pclose(pipe); }
};

TEST_F(HandlerLibraryTest, ExportsTheHandlersFunctionsAndNothingElse) {
  const std::unique_ptr<FILE, ClosePipe> listing(
      popen("nm -D --defined-only --format=posix " ZELTA_HANDLER, "r"));
  ASSERT_NE(listing, nullptr);
  std::vector<std::string> names;
  std::array<char, 256> line{};
  while (fgets(line.data(), line.size(), listing.get()) != nullptr) {
    std::istringstream(line.data()) >> names.emplace_back();
  }
  EXPECT_THAT(names, UnorderedElementsAre(
                         "IFDHCreateChannelByName", "IFDHCreateChannel", "IFDHCloseChannel",
                         "IFDHGetCapabilities", "IFDHSetCapabilities", "IFDHSetProtocolParameters",
                         "IFDHPowerICC", "IFDHTransmitToICC", "IFDHControl", "IFDHICCPresence"));
}

TEST_F(HandlerLibraryTest, OpensWithoutAnAgentAndShowsNoCard) {
  EXPECT_EQ(open(), IFD_SUCCESS);
  EXPECT_EQ(handler_->presence(kLun), IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
  EXPECT_EQ(handler_->presence(kLun), IFD_NO_SUCH_DEVICE);
}

TEST_F(HandlerLibraryTest, OpensByChannelNumber) {
  EXPECT_EQ(handler_->create(kLun, 0), IFD_SUCCESS);
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
  EXPECT_EQ(handler_->create(kLun, 1), IFD_NO_SUCH_DEVICE);
  EXPECT_EQ(handler_->create(kLun, ~DWORD{0}), IFD_NO_SUCH_DEVICE);
}

TEST_F(HandlerLibraryTest, FindsTheModuleInItsOwnFolder) {
  const ScopedVariable none("ZELTA_MODULE", "");
  EXPECT_EQ(open(), IFD_SUCCESS);
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

TEST_F(HandlerLibraryTest, ModuleThatIsNotThereIsACommunicationErrorOnStandardError) {
  const ScopedVariable missing("ZELTA_MODULE", "/nowhere/module.so");
  testing::internal::CaptureStderr();
  EXPECT_EQ(open(), IFD_COMMUNICATION_ERROR);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::AllOf(testing::StartsWith("zelta: reader dev0 cannot be had: "),
                             testing::HasSubstr("/nowhere/module.so")));
}

TEST_F(HandlerLibraryTest, LibraryThatIsNoModuleIsACommunicationError) {
  const ScopedVariable wrong("ZELTA_MODULE", ZELTA_HANDLER);
  testing::internal::CaptureStderr();
  EXPECT_EQ(open(), IFD_COMMUNICATION_ERROR);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::StartsWith("zelta: reader dev0 "));
}

TEST_F(HandlerLibraryTest, NamesAndNumbersThatAreTakenOrMissingAreRefused) {
  ASSERT_EQ(open(), IFD_SUCCESS);
  EXPECT_EQ(open("zelta:0", kOtherLun), IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(open("zelta:1", kOtherLun), IFD_NO_SUCH_DEVICE);
  EXPECT_EQ(open("zelta:one", kOtherLun), IFD_NO_SUCH_DEVICE);
  EXPECT_EQ(handler_->createByName(kOtherLun, nullptr), IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(handler_->close(kOtherLun), IFD_NO_SUCH_DEVICE);
  EXPECT_EQ(handler_->presence(kLun), IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

TEST_F(HandlerLibraryTest, EveryFunctionRefusesANumberThatIsNotOpen) {
  ASSERT_EQ(open(), IFD_SUCCESS);
  std::array<UCHAR, 8> bytes{};
  DWORD length = bytes.size();
  for (const DWORD lun : {DWORD{1}, kOtherLun, ~DWORD{0}}) {
    EXPECT_EQ(handler_->presence(lun), IFD_NO_SUCH_DEVICE);
    EXPECT_EQ(handler_->power(lun, IFD_POWER_UP, bytes.data(), &length), IFD_NO_SUCH_DEVICE);
    EXPECT_EQ(handler_->setProtocol(lun, SCARD_PROTOCOL_T1, 0, 0, 0, 0), IFD_NO_SUCH_DEVICE);
    EXPECT_EQ(handler_->getCapabilities(lun, TAG_IFD_ATR, &length, bytes.data()),
              IFD_NO_SUCH_DEVICE);
    EXPECT_EQ(handler_->setCapabilities(lun, SCARD_ATTR_DEVICE_IN_USE, 0, nullptr),
              IFD_NO_SUCH_DEVICE);
    EXPECT_EQ(handler_->control(lun, CM_IOCTL_GET_FEATURE_REQUEST, nullptr, 0, bytes.data(),
                                bytes.size(), &length),
              IFD_NO_SUCH_DEVICE);
    length = bytes.size();
    EXPECT_EQ(handler_->transmit(lun, {1, 16}, bytes.data(), 4, bytes.data(), &length, nullptr),
              IFD_NO_SUCH_DEVICE);
    EXPECT_EQ(length, 0u);
  }
  const auto poll =
      handler_->function<HandlerLibrary::PollFunction>(kLun, TAG_IFD_POLLING_THREAD_WITH_TIMEOUT);
  EXPECT_EQ(poll(kOtherLun, kLong), IFD_SUCCESS);  // at once, and never anything else
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

TEST_F(HandlerLibraryTest, MissingPointersAreRefused) {
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

TEST_F(HandlerLibraryTest, CardIsPoweredSpokenToAndRemoved) {
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

TEST_F(HandlerLibraryTest, CommandBeforeAnyPowerUpIsAnswered) {
  openWithCard();
  Bytes answer;
  EXPECT_EQ(transmit({0, 1, 2, 3}, &answer), IFD_SUCCESS);
  EXPECT_EQ(answer.size(), 6u);
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

TEST_F(HandlerLibraryTest, ProtocolThatTheCardDoesNotOfferIsRefusedAndTheOtherWorks) {
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

TEST_F(HandlerLibraryTest, BuffersThatAreTooSmallAreTold) {
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

TEST_F(HandlerLibraryTest, CommandsThatAreTooLongAreRefused) {
  openWithCard();
  Bytes answer;
  EXPECT_EQ(transmit(Bytes(MAX_BUFFER_SIZE_EXTENDED + 1), &answer), IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(transmit(Bytes(MAX_BUFFER_SIZE_EXTENDED - 2), &answer), IFD_SUCCESS);
  EXPECT_EQ(answer.size(), static_cast<std::size_t>(MAX_BUFFER_SIZE_EXTENDED));
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

TEST_F(HandlerLibraryTest, AttributesCanBeSetWhereTheDriverTakesThem) {
  ASSERT_EQ(open(), IFD_SUCCESS);
  UCHAR value[] = {1, 0, 0, 0};
  EXPECT_EQ(handler_->setCapabilities(kLun, SCARD_ATTR_DEVICE_IN_USE, 4, value), IFD_SUCCESS);
  EXPECT_EQ(handler_->setCapabilities(kLun, SCARD_ATTR_VENDOR_NAME, 4, value), IFD_ERROR_TAG);
  EXPECT_EQ(handler_->setCapabilities(kLun, SCARD_ATTR_DEVICE_IN_USE, ~DWORD{0}, value),
            IFD_ERROR_SET_FAILURE);
  EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
}

TEST_F(HandlerLibraryTest, StopFunctionEndsThePollThatIsYetToCome) {
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

TEST_F(HandlerLibraryTest, ClosesDuringACommandOnceTheAgentHasAnswered) {
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

TEST_F(HandlerLibraryTest, OpensAndClosesSwiftlyOverAndOver) {
  const auto begun = Clock::now();
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(open(), IFD_SUCCESS);
    ASSERT_EQ(handler_->close(kLun), IFD_SUCCESS);
    handler_.reset();
    handler_.emplace();
  }
  EXPECT_LT(Clock::now() - begun, std::chrono::seconds(15));
}

TEST_F(HandlerLibraryTest, CallsFromManyThreadsAtOnce) {
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

// pcscd, ended by a signal, exits with all its threads where they are.
TEST(HandlerProcessTest, ExitsWithAChannelOpenAndThreadsInside) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(
      {
        HandlerWorld world;
        HandlerLibrary handler;
        char name[] = "zelta:0";
        CardAgent agent;
        agent.setCardIn();
        if (handler.createByName(kLun, name) != IFD_SUCCESS || !agent.connect()) std::_Exit(2);
        const auto poll = handler.function<HandlerLibrary::PollFunction>(
            kLun, TAG_IFD_POLLING_THREAD_WITH_TIMEOUT);
        poll(kLun, kLong);
        std::thread([&] { poll(kLun, kLong); }).detach();
        const bool in = handler.presence(kLun) == IFD_SUCCESS;
        world.removeFolder();
        std::exit(in ? 0 : 3);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zelta::test
