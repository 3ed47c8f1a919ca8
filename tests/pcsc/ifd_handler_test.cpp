// The functions that pcscd calls, on the real driver.
#include <array>
#include <cstdlib>
#include <future>
#include <thread>

#include "contract/bytes.h"
#include "tests/pcsc/handler_fixture.h"
#include "tests/support/exported_names_linux.h"

namespace zelta::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using Clock = std::chrono::steady_clock;
using IfdHandlerTest = HandlerFixture;

TEST_F(IfdHandlerTest, Exports_AreTheHandlersFunctionsAndNothingElse) {
  EXPECT_THAT(exportedNames("nm", ZELTA_HANDLER),
              testing::UnorderedElementsAre(
                  "IFDHCreateChannelByName", "IFDHCreateChannel", "IFDHCloseChannel",
                  "IFDHGetCapabilities", "IFDHSetCapabilities", "IFDHSetProtocolParameters",
                  "IFDHPowerICC", "IFDHTransmitToICC", "IFDHControl", "IFDHICCPresence"));
}

TEST_F(IfdHandlerTest, ChannelWithoutAnAgent_OpensByNameOrNumberAndShowsNoCard) {
  const std::function<RESPONSECODE()> ways[] = {
      [this] { return open(); }, [this] { return handler_->create(kLun, 0); },
      [this] {
        const ScopedVariable inItsOwnFolder("ZELTA_MODULE", "");
        return open();
      }};
  for (const auto& way : ways) {
    ASSERT_EQ(way(), IFD_SUCCESS);
    EXPECT_EQ(handler_->presence(kLun), IFD_ICC_NOT_PRESENT);
    EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS);
    EXPECT_EQ(handler_->presence(kLun), IFD_NO_SUCH_DEVICE);
  }
}

TEST_F(IfdHandlerTest, ModuleThatCannotBeLoaded_IsACommunicationErrorOnStandardError) {
  for (const char* module : {"/nowhere/module.so", ZELTA_HANDLER}) {  // not there; no driver
    const ScopedVariable wrong("ZELTA_MODULE", module);
    testing::internal::CaptureStderr();
    EXPECT_EQ(open(), IFD_COMMUNICATION_ERROR);
    EXPECT_THAT(
        testing::internal::GetCapturedStderr(),
        testing::AllOf(StartsWith("zelta: reader dev0 cannot be had: "), HasSubstr(module)));
  }
}

TEST_F(IfdHandlerTest, NamesAndNumbersOfNoReader_AreRefused) {
  EXPECT_EQ(handler_->createByName(kLun, nullptr), IFD_COMMUNICATION_ERROR);
  EXPECT_EQ(handler_->create(kLun, 1), IFD_NO_SUCH_DEVICE);
  EXPECT_EQ(handler_->create(kLun, ~DWORD{0}), IFD_NO_SUCH_DEVICE);
  testing::internal::CaptureStderr();
  EXPECT_EQ(open("zelta:one"), IFD_NO_SUCH_DEVICE);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "zelta: DEVICENAME 'zelta:one' has no reader index after its colon\n");
  EXPECT_EQ(handler_->close(kLun), IFD_NO_SUCH_DEVICE);
}

TEST_F(IfdHandlerTest, NumberThatIsNotOpen_IsRefusedByEveryFunction) {
  ASSERT_EQ(open(), IFD_SUCCESS);
  std::array<UCHAR, 8> bytes{};
  for (const DWORD lun : {DWORD{1}, kOtherLun, ~DWORD{0}}) {
    DWORD length = bytes.size();
    const RESPONSECODE codes[] = {
        handler_->close(lun),
        handler_->presence(lun),
        handler_->power(lun, IFD_POWER_UP, bytes.data(), &length),
        handler_->setProtocol(lun, SCARD_PROTOCOL_T1, 0, 0, 0, 0),
        handler_->getCapabilities(lun, TAG_IFD_ATR, &length, bytes.data()),
        handler_->setCapabilities(lun, SCARD_ATTR_DEVICE_IN_USE, 0, nullptr),
        handler_->control(lun, CM_IOCTL_GET_FEATURE_REQUEST, nullptr, 0, bytes.data(), bytes.size(),
                          &length)};
    EXPECT_THAT(codes, testing::Each(IFD_NO_SUCH_DEVICE));
    length = bytes.size();
    EXPECT_EQ(handler_->transmit(lun, {1, 16}, bytes.data(), 4, bytes.data(), &length, nullptr),
              IFD_NO_SUCH_DEVICE);
    EXPECT_EQ(length, 0u);
  }
  const auto poll = handler_->pollFunction(kLun);
  EXPECT_EQ(poll(kOtherLun, kLong), IFD_SUCCESS);  // at once, and never anything else
}

TEST_F(IfdHandlerTest, MissingPointers_AreRefused) {
  ASSERT_EQ(open(), IFD_SUCCESS);
  std::array<UCHAR, 64> bytes{};
  PUCHAR const some = bytes.data();
  DWORD length = bytes.size();
  const RESPONSECODE codes[] = {
      handler_->power(kLun, IFD_POWER_UP, nullptr, &length),
      handler_->power(kLun, IFD_POWER_UP, some, nullptr),
      handler_->getCapabilities(kLun, TAG_IFD_ATR, nullptr, some),
      handler_->getCapabilities(kLun, TAG_IFD_ATR, &length, nullptr),
      handler_->setCapabilities(kLun, SCARD_ATTR_DEVICE_IN_USE, 1, nullptr),
      handler_->transmit(kLun, {1, 16}, some, 4, some, nullptr, nullptr),
      handler_->transmit(kLun, {1, 16}, nullptr, 4, some, &length, nullptr),
      handler_->transmit(kLun, {1, 16}, some, 4, nullptr, &length, nullptr),
      handler_->control(kLun, 0, nullptr, 0, some, 8, nullptr),
      handler_->control(kLun, 0, nullptr, 0, nullptr, 8, &length),
      handler_->control(kLun, 0, nullptr, 8, some, 8, &length)};
  EXPECT_THAT(codes, testing::Each(IFD_COMMUNICATION_ERROR));
  EXPECT_EQ(length, 0u);
}

TEST_F(IfdHandlerTest, Card_IsPoweredSpokenToAndRemoved) {
  openWithCard();
  Bytes bytes;
  EXPECT_EQ(transmit({0, 1, 2, 3}, &bytes), IFD_SUCCESS);  // before any power-up
  EXPECT_THAT(bytes, ElementsAre(0, 1, 2, 3, 0x90, 0x00));
  EXPECT_EQ(power(IFD_POWER_UP, &bytes), IFD_SUCCESS);
  EXPECT_EQ(bytes, CardAgent::usualAtr());
  for (const DWORD protocol : {SCARD_PROTOCOL_T0, SCARD_PROTOCOL_T1}) {
    const DWORD number = protocol == SCARD_PROTOCOL_T0 ? 0 : 1;
    EXPECT_EQ(handler_->setProtocol(kLun, protocol, 0, 0, 0, 0), IFD_SUCCESS);
    EXPECT_EQ(transmit({0, 1, 2, 3}, &bytes, number), IFD_SUCCESS);
    EXPECT_THAT(bytes, ElementsAre(0, 1, 2, 3, 0x90, 0x00));
    EXPECT_EQ(received_.Protocol, number);
    EXPECT_EQ(received_.Length, sizeof(SCARD_IO_HEADER));
  }
  EXPECT_EQ(power(IFD_RESET, &bytes), IFD_SUCCESS);
  EXPECT_EQ(power(IFD_POWER_DOWN, &bytes), IFD_SUCCESS);
  EXPECT_TRUE(bytes.empty());
  agent_.remove();
  waitForPresence(IFD_ICC_NOT_PRESENT);
  EXPECT_EQ(transmit({0, 1, 2, 3}, &bytes), IFD_ICC_NOT_PRESENT);
  EXPECT_TRUE(bytes.empty());
  EXPECT_EQ(power(IFD_POWER_UP, &bytes), IFD_ICC_NOT_PRESENT);
  EXPECT_TRUE(bytes.empty());
}

TEST_F(IfdHandlerTest, BuffersThatAreTooSmall_AreTold) {
  openWithCard();
  std::array<UCHAR, 16> bytes{};
  UCHAR command[] = {0, 1, 2, 3};
  DWORD length = 4;
  EXPECT_EQ(handler_->power(kLun, IFD_POWER_UP, bytes.data(), &length),
            IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 0u);
  length = 5;
  EXPECT_EQ(handler_->transmit(kLun, {1, 16}, command, 4, bytes.data(), &length, nullptr),
            IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(
      handler_->control(kLun, CM_IOCTL_GET_FEATURE_REQUEST, nullptr, 0, bytes.data(), 5, &length),
      IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(handler_->control(kLun, CM_IOCTL_GET_FEATURE_REQUEST, nullptr, 0, nullptr, 0, &length),
            IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(length, 0u);
  const std::pair<DWORD, DWORD> sizes[] = {{SCARD_ATTR_VENDOR_NAME, 8},
                                           {SCARD_ATTR_MAX_IFSD, 4},
                                           {TAG_IFD_SLOTS_NUMBER, 1},
                                           {TAG_IFD_POLLING_THREAD_WITH_TIMEOUT, 8}};
  for (const auto& [tag, size] : sizes) {
    length = size - 1;
    EXPECT_EQ(handler_->getCapabilities(kLun, tag, &length, bytes.data()),
              IFD_ERROR_INSUFFICIENT_BUFFER);
    length = size;
    EXPECT_EQ(handler_->getCapabilities(kLun, tag, &length, bytes.data()), IFD_SUCCESS);
    EXPECT_EQ(length, size);
  }
}

TEST_F(IfdHandlerTest, CommandsAndValuesThatAreTooLong_AreRefused) {
  openWithCard();
  Bytes bytes;
  EXPECT_EQ(transmit(Bytes(MAX_BUFFER_SIZE_EXTENDED + 1), &bytes), IFD_ERROR_INSUFFICIENT_BUFFER);
  EXPECT_EQ(transmit(Bytes(MAX_BUFFER_SIZE_EXTENDED - 2), &bytes), IFD_SUCCESS);
  EXPECT_EQ(bytes.size(), static_cast<std::size_t>(MAX_BUFFER_SIZE_EXTENDED));
  UCHAR value[] = {1, 0, 0, 0};
  EXPECT_EQ(handler_->setCapabilities(kLun, SCARD_ATTR_DEVICE_IN_USE, ~DWORD{0}, value),
            IFD_ERROR_SET_FAILURE);
  EXPECT_EQ(handler_->setCapabilities(kLun, SCARD_ATTR_DEVICE_IN_USE, 4, value), IFD_SUCCESS);
  EXPECT_EQ(handler_->setCapabilities(kLun, SCARD_ATTR_VENDOR_NAME, 4, value), IFD_ERROR_TAG);
}

TEST_F(IfdHandlerTest, StopFunction_EndsThePollThatIsYetToCome) {
  ASSERT_EQ(open(), IFD_SUCCESS);
  const auto poll = handler_->pollFunction(kLun);
  const auto stop =
      handler_->function<HandlerLibrary::StopFunction>(kLun, TAG_IFD_STOP_POLLING_THREAD);
  EXPECT_EQ(stop(kLun), IFD_SUCCESS);
  const auto begun = Clock::now();
  EXPECT_EQ(poll(kLun, kLong), IFD_SUCCESS);
  EXPECT_LT(Clock::now() - begun, std::chrono::milliseconds(kLong / 2));
}

TEST_F(IfdHandlerTest, CloseDuringACommand_SucceedsAndEndsIt) {
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

// When a signal ends pcscd, it exits without stopping its threads.
TEST(IfdHandlerProcessTest, ExitWithAChannelOpenAndThreadsInside_IsClean) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(
      {
        HandlerWorld world;
        HandlerLibrary handler;
        char name[] = "zelta:0";
        CardAgent agent;
        agent.setCardIn();
        if (handler.createByName(0, name) != IFD_SUCCESS || !agent.connect()) std::_Exit(2);
        const auto poll = handler.pollFunction(0);
        poll(0, 30000);
        std::thread([&] { poll(0, 30000); }).detach();
        const bool in = handler.presence(0) == IFD_SUCCESS;
        world.removeFolder();
        std::exit(in ? 0 : 3);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zelta::test
