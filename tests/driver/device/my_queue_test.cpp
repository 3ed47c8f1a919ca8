#include "driver/device/my_queue.h"

#include "tests/driver/device/device_fixture.h"

namespace zelta {
namespace {

using test::DeviceFixture;
using test::error;
using test::info;
using test::kNoCode;
using testing::ElementsAre;
using testing::IsEmpty;

class Queue : public DeviceFixture {
 protected:
  void SetUp() override {
    ASSERT_EQ(create(), 0);
    log_.clear();
  }
};

TEST_F(Queue, WithoutADeviceIsAnInvalidArgumentAndNotLogged) {
  EXPECT_EQ(CMyQueue::CreateInstance(wdfDevice(), nullptr), framework::hresult(0x80070057));
  EXPECT_THAT(log_.recordsAboveDebug(), IsEmpty());
  const auto records = log_.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0], test::debug("Start section:CMyQueue::CreateInstance"));
  EXPECT_THAT(records[1].text,
              testing::StartsWith("End section:CMyQueue::CreateInstance elapsed:"));
}

TEST_F(Queue, WithoutAFrameworkDeviceSucceedsWithoutAQueue) {
  EXPECT_EQ(CMyQueue::CreateInstance(nullptr, device_), 0);
  EXPECT_THAT(log_.recordsAboveDebug(), ElementsAre(error(kNoCode, "Invalid WDF Device")));
  EXPECT_EQ(device_->AddRef(), 2u);  // the callback object is gone with its reference
  device_->Release();
}

TEST_F(Queue, IsTheParallelDefaultQueue) {
  EXPECT_EQ(CMyQueue::CreateInstance(wdfDevice(), device_), 0);
  ASSERT_EQ(wdfDevice()->queues.size(), 1u);
  EXPECT_EQ(wdfDevice()->queues[0].defaultQueue, 1);
  EXPECT_EQ(wdfDevice()->queues[0].dispatchType, 2);
  EXPECT_EQ(wdfDevice()->queues[0].powerManaged, 0);
  EXPECT_EQ(wdfDevice()->queues[0].allowZeroLength, 1);
  EXPECT_THAT(log_.recordsAboveDebug(), ElementsAre(info("IoQueue Created.")));
}

TEST_F(Queue, KeepsItsDeviceAndIsTheFrameworksAlone) {
  ASSERT_EQ(CMyQueue::CreateInstance(wdfDevice(), device_), 0);
  EXPECT_EQ(device_->AddRef(), 3u);  // the framework's, the queue's
  device_->Release();
  framework::IUnknown* callback = wdfDevice()->queueCallback.get();
  EXPECT_EQ(callback->AddRef(), 2u);
  callback->Release();
  EXPECT_EQ(test::livingObjects(), 2);  // driver and device: the framework's queue was released
}

TEST_F(Queue, RefusedByTheFrameworkIsLoggedAndReturned) {
  wdfDevice()->createQueueResult = framework::hresult(0x8007001F);
  EXPECT_EQ(CMyQueue::CreateInstance(wdfDevice(), device_), framework::hresult(0x8007001F));
  EXPECT_THAT(log_.errors(), ElementsAre(error(0x8007001F, "IoQueue NOT Created")));
  EXPECT_EQ(device_->AddRef(), 2u);
  device_->Release();
}

TEST_F(Queue, AnswersForItsInterfaceOnly) {
  ASSERT_EQ(CMyQueue::CreateInstance(wdfDevice(), device_), 0);
  framework::ComPtr<framework::IUnknown> found;
  EXPECT_EQ(wdfDevice()->queueCallback->QueryInterface(
                framework::IQueueCallbackDeviceIoControl::iid, found.putVoid()),
            0);
  EXPECT_EQ(
      wdfDevice()->queueCallback->QueryInterface(framework::IPnpCallback::iid, found.putVoid()),
      framework::kNoInterface);
}

TEST_F(Queue, ForwardsEveryArgumentAndLogsNothingItself) {
  ASSERT_EQ(CMyQueue::CreateInstance(wdfDevice(), device_), 0);
  log_.clear();
  framework::ComPtr<framework::IQueueCallbackDeviceIoControl> queue;
  wdfDevice()->queueCallback->QueryInterface(framework::IQueueCallbackDeviceIoControl::iid,
                                             queue.putVoid());
  auto* request = new test::FakeWdfRequest(test::RequestSetup{});
  const auto outcome = request->outcome();
  queue->OnDeviceIoControl(nullptr, request, 0x00310014, 261, 258);
  EXPECT_TRUE(outcome->completed());
  const auto records = log_.records();
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[0], test::debug("Start section:CMyDevice::ProcessIoControl"));
  EXPECT_EQ(records[1], info("[IOCT]IOCTL 00310014 - In 261 Out 258"));
  EXPECT_EQ(records[2], error(5023, "[IOCT]No reader available: ERROR_INVALID_STATE:00310014"));
}

}  // namespace
}  // namespace zelta
