// Memory that runs out, at every possible point: no exception leaves an operation that the
// framework calls, and every request is completed once or waits.
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/status.h"
#include "driver/device/my_queue.h"
#include "driver/device/reader_index.h"
#include "driver/module/class_factory.h"
#include "driver/module/module.h"
#include "driver/module/my_driver.h"
#include "driver/request/framework_request.h"
#include "tests/driver/device/device_fixture.h"
#include "tests/support/scarce_memory.h"

namespace zelta {
namespace {

using framework::ComPtr;
using test::DeviceFixture;
using test::error;
using test::FakeWdfRequest;
using test::RequestSetup;
using test::ScarceMemory;
using testing::ElementsAre;

constexpr auto kOutOfMemory = framework::hresult(0x8007000E);
constexpr int kManyAllocations = 500;  // more than any operation makes

class NoMemory : public DeviceFixture {
 protected:
  // Runs `operation` with 0, 1, 2 ... allocations until they suffice. It says whether they did not.
  template <typename Operation>
  static void withEveryShortage(Operation operation) {
    int allocations = 0;
    while (operation(allocations)) {
      ASSERT_LT(++allocations, kManyAllocations) << "never enough memory";
    }
    EXPECT_GT(allocations, 0) << "the operation allocates nothing: nothing was tried";
  }

  void forgetDevice() {
    device_ = nullptr;
    if (wdf_->device) wdf_->device->letGo();
    wdf_->device.reset();
  }
};

TEST_F(NoMemory, ForTheDeviceObjectIsLoggedAndReturned) {
  framework::HRESULT result = 0;
  {
    const auto memory = ScarceMemory::ofSize(sizeof(CMyDevice));
    result = CMyDevice::CreateInstance(wdf_.get(), &init_, createPipeReader);
    EXPECT_TRUE(memory.ranOut());
  }
  EXPECT_EQ(result, kOutOfMemory);
  EXPECT_THAT(log_.errors(), ElementsAre(error(0x8007000E, "[CI]Device is null")));
}

TEST_F(NoMemory, ForTheQueueObjectIsLoggedAndReturned) {
  ASSERT_EQ(create(), 0);
  framework::HRESULT result = 0;
  {
    const auto memory = ScarceMemory::ofSize(sizeof(CMyQueue));
    result = CMyQueue::CreateInstance(wdfDevice(), device_);
    EXPECT_TRUE(memory.ranOut());
  }
  EXPECT_EQ(result, kOutOfMemory);
  EXPECT_THAT(log_.errors(), ElementsAre(error(0x8007000E, "CreateInstance failed")));
}

TEST_F(NoMemory, ForTheFactoryAndTheDriverIsReturned) {
  void* out = this;
  {
    const auto memory = ScarceMemory::ofSize(sizeof(ClassFactory));
    EXPECT_EQ(module::getClassObject(
                  {0xA44A2DF4, 0xDCA4, 0x4767, {0x8E, 0xC4, 0x86, 0xFE, 0x61, 0x1C, 0x2E, 0xA7}},
                  framework::IClassFactory::iid, &out),
              kOutOfMemory);
  }
  EXPECT_EQ(out, nullptr);
  const auto factory = ComPtr<ClassFactory>::adopt(framework::createObject<ClassFactory>());
  {
    const auto memory = ScarceMemory::ofSize(sizeof(CMyDriver));
    EXPECT_EQ(factory->CreateInstance(nullptr, framework::IDriverEntry::iid, &out), kOutOfMemory);
  }
  EXPECT_EQ(out, nullptr);
}

TEST_F(NoMemory, NeverLeavesTheDevicesCreation) {
  withEveryShortage([&](int allocations) {
    bool ranOut = false;
    {
      const ScarceMemory memory(allocations);
      (void)CMyDevice::CreateInstance(wdf_.get(), &init_, createPipeReader);
      ranOut = memory.ranOut();
    }
    forgetDevice();
    return ranOut;
  });
}

TEST_F(NoMemory, NeverLeavesPreparingTheHardware) {
  ASSERT_EQ(create(), 0);
  withEveryShortage([&](int allocations) {
    const ScarceMemory memory(allocations);
    (void)device_->OnPrepareHardware(wdfDevice());
    (void)device_->OnReleaseHardware(wdfDevice());
    return memory.ranOut();
  });
}

TEST_F(NoMemory, NeverLeavesEnteringTheWorkingState) {
  withEveryShortage([&](int allocations) {
    EXPECT_EQ(create(), 0);
    bool ranOut = false;
    framework::HRESULT result = 0;
    {
      const ScarceMemory memory(allocations);
      result = device_->OnD0Entry(wdfDevice(), framework::kPowerDeviceD3Final);
      ranOut = memory.ranOut();
    }
    // A lost log record is no failure; a reader that could not be made is.
    EXPECT_TRUE(result == 0 || result == kOutOfMemory || result == status::kInvalidArgument)
        << result;
    EXPECT_EQ(device_->OnD0Exit(wdfDevice(), framework::kPowerDeviceD3Final), 0);
    forgetDevice();
    return ranOut;
  });
}

class NoMemoryForRequests : public NoMemory {
 protected:
  void SetUp() override {
    bringUp();
    setup_.input = Bytes{1, 0, 0, 0, 8, 0, 0, 0, 0x00, 0xA4};
    setup_.outputCapacity = 64;
  }

  RequestSetup setup_;
};

class NoMemoryIo : public NoMemoryForRequests, public testing::WithParamInterface<std::uint32_t> {};

TEST_P(NoMemoryIo, CompletesTheRequestOnceOrLeavesItWaiting) {
  for (const QueryResult check : {QueryResult::kSuccess, QueryResult::kFailure}) {
    story_.checkResult = check;
    withEveryShortage([&](int allocations) {
      log_.clear();
      const auto request = ComPtr<FakeWdfRequest>(new FakeWdfRequest(setup_));
      bool ranOut = false;
      {
        const ScarceMemory memory(allocations);
        device_->ProcessIoControl(nullptr, request.get(), GetParam(), 10, 64);
        ranOut = memory.ranOut();
      }
      EXPECT_NE(request->outcome()->completed(), request->markedCancelable());
      request->cancel();
      EXPECT_TRUE(request->outcome()->completed());
      return ranOut;
    });
  }
}

INSTANTIATE_TEST_SUITE_P(Controls, NoMemoryIo,
                         testing::Values(IOCTL_SMARTCARD_GET_ATTRIBUTE, IOCTL_SMARTCARD_IS_PRESENT,
                                         IOCTL_SMARTCARD_GET_STATE, IOCTL_SMARTCARD_IS_ABSENT,
                                         IOCTL_SMARTCARD_POWER, IOCTL_SMARTCARD_SET_ATTRIBUTE,
                                         IOCTL_SMARTCARD_SET_PROTOCOL, IOCTL_SMARTCARD_TRANSMIT,
                                         IOCTL_SMARTCARD_EJECT));

TEST_F(NoMemoryForRequests, IsNoMatterForARequestsBuffersAndTheReadersIndex) {
  const auto request = ComPtr<FakeWdfRequest>(new FakeWdfRequest(setup_));
  IoRequest* adapter = nullptr;
  ASSERT_EQ(FrameworkRequest::attach(*request.get(), &adapter), 0);
  bool all = false;
  std::uint32_t index = 0;
  {
    const ScarceMemory memory(0);
    all = adapter->inputMemory() && adapter->outputMemory() && adapter->fileObject();
    index = parseReaderIndex(L"\\\\?\\a-long-name#of-a-reader#DEV3");
  }
  EXPECT_TRUE(all);
  EXPECT_EQ(index, 3u);
  adapter->complete(0);
}

TEST_F(NoMemoryForRequests, NeverKeepsACancelledRequest) {
  withEveryShortage([&](int allocations) {
    const auto request = ComPtr<FakeWdfRequest>(new FakeWdfRequest(setup_));
    device_->ProcessIoControl(nullptr, request.get(), IOCTL_SMARTCARD_IS_PRESENT, 10, 64);
    bool ranOut = false;
    {
      const ScarceMemory memory(allocations);
      request->cancel();
      ranOut = memory.ranOut();
    }
    EXPECT_EQ(request->outcome()->status(), 0x800704C7u);
    return ranOut;
  });
}

}  // namespace
}  // namespace zelta
