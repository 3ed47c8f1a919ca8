#include "driver/device/my_queue.h"

#include "contract/io_controls.h"
#include "tests/driver/device/device_fixture.h"

namespace zelta {
namespace {

using test::error;
using test::info;
using testing::ElementsAre;
using testing::IsEmpty;

using Queue = test::CreatedDevice;

TEST_F(Queue, MissingDevice_IsInvalidAndNotLogged) {
  EXPECT_EQ(CMyQueue::CreateInstance(wdfDevice(), nullptr), status::kInvalidArgument);
  EXPECT_THAT(log_.recordsAboveDebug(), IsEmpty());
  const auto records = log_.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0], test::debug("Start section:CMyQueue::CreateInstance"));
  EXPECT_THAT(records[1].text,
              testing::StartsWith("End section:CMyQueue::CreateInstance elapsed:"));
}

TEST_F(Queue, MissingFrameworkDevice_SucceedsWithoutAQueue) {
  EXPECT_EQ(CMyQueue::CreateInstance(nullptr, device_), status::kSuccess);
  EXPECT_THAT(log_.recordsAboveDebug(), ElementsAre(error(test::kNoCode, "Invalid WDF Device")));
  EXPECT_EQ(referencesOnDevice(), 1u) << "the callback object is gone with its reference";
}

TEST_F(Queue, Created_IsTheParallelDefaultQueueAndTheFrameworksAlone) {
  EXPECT_EQ(CMyQueue::CreateInstance(wdfDevice(), device_), status::kSuccess);
  ASSERT_EQ(wdfDevice()->queues.size(), 1u);
  const auto& settings = framework_.queue().settings;
  EXPECT_EQ(settings.defaultQueue, 1);
  EXPECT_EQ(settings.dispatchType, 2);
  EXPECT_EQ(settings.powerManaged, 0);
  EXPECT_EQ(settings.allowZeroLength, 1);
  EXPECT_EQ(framework_.queue().driversReferences(), 0);
  EXPECT_EQ(referencesOnDevice(), 2u) << "the framework's and the queue's";
  auto* const callback = framework_.queue().callback.get();
  EXPECT_EQ(callback->AddRef(), 2u) << "one is the framework's";
  callback->Release();
  framework::ComPtr<framework::IUnknown> found;
  EXPECT_EQ(callback->QueryInterface(framework::IPnpCallback::iid, found.putVoid()),
            framework::kNoInterface);
  EXPECT_THAT(log_.recordsAboveDebug(), ElementsAre(info("IoQueue Created.")));
}

TEST_F(Queue, RefusedByTheFramework_IsLoggedAndReturned) {
  framework_.results.createQueue = status::kGenFailure;
  EXPECT_EQ(CMyQueue::CreateInstance(wdfDevice(), device_), status::kGenFailure);
  EXPECT_THAT(log_.errors(), ElementsAre(error(0x8007001F, "IoQueue NOT Created")));
  EXPECT_EQ(referencesOnDevice(), 1u);
}

TEST_F(Queue, Control_IsForwardedWithAllArgumentsAndNothingElseIsLogged) {
  ASSERT_EQ(CMyQueue::CreateInstance(wdfDevice(), device_), status::kSuccess);
  log_.clear();
  auto& request = framework_.makeRequest();
  framework_.queue().callback->OnDeviceIoControl(nullptr, &request, IOCTL_SMARTCARD_TRANSMIT, 261,
                                                 258);
  EXPECT_TRUE(request.completed());
  const auto records = log_.records();
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[0], test::debug("Start section:CMyDevice::ProcessIoControl"));
  EXPECT_EQ(records[1], info("[IOCT]IOCTL 00310014 - In 261 Out 258"));
  EXPECT_EQ(records[2], error(5023, "[IOCT]No reader available: ERROR_INVALID_STATE:00310014"));
}

}  // namespace
}  // namespace zelta
