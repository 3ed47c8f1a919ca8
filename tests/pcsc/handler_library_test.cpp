// Loading the library, opening and closing channels.
#include <gmock/gmock.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <thread>

#include "contract/attributes.h"
#include "contract/reader_states.h"
#include "tests/pcsc/handler_fixture.h"

namespace zelta::test {
namespace {

using testing::UnorderedElementsAre;
using Clock = std::chrono::steady_clock;
using HandlerLibraryTest = HandlerFixture;

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
