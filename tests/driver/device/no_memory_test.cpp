// Memory that runs out, at every possible point: no exception leaves an operation that the
// framework calls, and every request is completed once or waits.
#include "contract/class_ids.h"
#include "contract/io_controls.h"
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
using test::error;
using test::FakeWdfRequest;
using test::MemorySweep;
using test::RequestSetup;
using test::ScarceMemory;
using testing::ElementsAre;

using NoMemory = test::DeviceFixture;

TEST_F(NoMemory, DeviceOrQueueObjectCannotBeMade_IsLoggedAndReturned) {
  framework::HRESULT result = 0;
  {
    const auto memory = ScarceMemory::ofSize(sizeof(CMyDevice));
    result = CMyDevice::CreateInstance(&framework_.driver, &framework_.init, createPipeReader);
  }
  EXPECT_EQ(result, status::kOutOfMemory);
  ASSERT_EQ(create(), status::kSuccess);
  {
    const auto memory = ScarceMemory::ofSize(sizeof(CMyQueue));
    result = CMyQueue::CreateInstance(wdfDevice(), device_);
  }
  EXPECT_EQ(result, status::kOutOfMemory);
  EXPECT_THAT(log_.errors(), ElementsAre(error(0x8007000E, "[CI]Device is null"),
                                         error(0x8007000E, "CreateInstance failed")));
}

TEST_F(NoMemory, FactoryOrDriverCannotBeMade_IsReturned) {
  void* out = this;
  {
    const auto memory = ScarceMemory::ofSize(sizeof(ClassFactory));
    EXPECT_EQ(module::getClassObject(kDriverClassId, framework::IClassFactory::iid, &out),
              status::kOutOfMemory);
  }
  EXPECT_EQ(out, nullptr);
  const auto factory = ComPtr<ClassFactory>::adopt(framework::createObject<ClassFactory>());
  {
    const auto memory = ScarceMemory::ofSize(sizeof(CMyDriver));
    EXPECT_EQ(factory->CreateInstance(nullptr, framework::IDriverEntry::iid, &out),
              status::kOutOfMemory);
  }
  EXPECT_EQ(out, nullptr);
}

TEST_F(NoMemory, DevicesCreation_LetsNoExceptionOut) {
  for (MemorySweep sweep; sweep.next();) {
    sweep.run([&]() noexcept {
      (void)CMyDevice::CreateInstance(&framework_.driver, &framework_.init, createPipeReader);
    });
    if (wdfDevice() != nullptr) framework_.removeDevice();
  }
}

TEST_F(NoMemory, HardwaresPreparation_LetsNoExceptionOut) {
  ASSERT_EQ(create(), status::kSuccess);
  for (MemorySweep sweep; sweep.next();) {
    sweep.run([&]() noexcept {
      (void)framework_.prepareHardware();
      (void)framework_.releaseHardware();
    });
  }
}

TEST_F(NoMemory, EntryIntoTheWorkingState_SucceedsOrSaysWhyNot) {
  for (MemorySweep sweep; sweep.next();) {
    EXPECT_EQ(create(), status::kSuccess);
    framework::HRESULT result = 0;
    sweep.run([&]() noexcept { result = framework_.enterD0(); });
    // A lost log record is not a failure; a reader that could not be made is.
    EXPECT_THAT(result,
                testing::AnyOf(status::kSuccess, status::kOutOfMemory, status::kInvalidArgument));
    EXPECT_EQ(framework_.exitD0(), status::kSuccess);
    framework_.removeDevice();
  }
  device_ = nullptr;
}

const RequestSetup kTransmit = {IOCTL_SMARTCARD_TRANSMIT, Bytes{1, 0, 0, 0, 8, 0, 0, 0, 0x00, 0xA4},
                                64};

struct Control {
  const char* name;
  std::uint32_t code;
};

class NoMemoryForRequests : public NoMemory, public testing::WithParamInterface<Control> {
 protected:
  void SetUp() override { bringUp(); }

  FakeWdfRequest& make(std::uint32_t code) {
    RequestSetup setup = kTransmit;
    setup.code = code;
    return framework_.makeRequest(setup);
  }
};

TEST_P(NoMemoryForRequests, Control_IsCompletedOnceOrWaits) {
  for (const QueryResult check : {QueryResult::kSuccess, QueryResult::kFailure}) {
    story_.checkResult = check;
    for (MemorySweep sweep; sweep.next();) {
      log_.clear();
      FakeWdfRequest& request = make(GetParam().code);
      sweep.run([&]() noexcept { framework_.dispatch(request); });
      EXPECT_NE(request.completed(), request.markedCancelable());
      request.cancel();
      EXPECT_TRUE(request.completed());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Controls, NoMemoryForRequests,
                         testing::Values(Control{"GetAttribute", IOCTL_SMARTCARD_GET_ATTRIBUTE},
                                         Control{"IsPresent", IOCTL_SMARTCARD_IS_PRESENT},
                                         Control{"GetState", IOCTL_SMARTCARD_GET_STATE},
                                         Control{"IsAbsent", IOCTL_SMARTCARD_IS_ABSENT},
                                         Control{"Power", IOCTL_SMARTCARD_POWER},
                                         Control{"SetAttribute", IOCTL_SMARTCARD_SET_ATTRIBUTE},
                                         Control{"SetProtocol", IOCTL_SMARTCARD_SET_PROTOCOL},
                                         Control{"Transmit", IOCTL_SMARTCARD_TRANSMIT},
                                         Control{"Eject", IOCTL_SMARTCARD_EJECT}),
                         [](const auto& each) { return std::string(each.param.name); });

TEST_F(NoMemoryForRequests, CancelledRequest_IsNeverKept) {
  for (MemorySweep sweep; sweep.next();) {
    FakeWdfRequest& request = make(IOCTL_SMARTCARD_IS_PRESENT);
    framework_.dispatch(request);
    sweep.run([&]() noexcept { request.cancel(); });
    EXPECT_EQ(request.status(), status::kCancelled);
  }
}

TEST_F(NoMemoryForRequests, RequestsBuffersAndTheReadersIndex_NeedNone) {
  FakeWdfRequest& request = make(IOCTL_SMARTCARD_TRANSMIT);
  IoRequest* const adapter = FrameworkRequest::attach(request).adapter;
  ASSERT_NE(adapter, nullptr);
  bool all = false;
  std::uint32_t index = 0;
  {
    const ScarceMemory memory(0);
    all = adapter->inputMemory() && adapter->outputMemory() && adapter->fileObject();
    index = parseReaderIndex(L"\\\\?\\a-long-name#of-a-reader#DEV3");
  }
  EXPECT_TRUE(all);
  EXPECT_EQ(index, 3u);
  adapter->complete(status::kSuccess);
}

}  // namespace
}  // namespace zelta
