#include "driver/device/my_queue.h"

#include "contract/status.h"
#include "driver/request/entry_point.h"

namespace zelta {

namespace {

using framework::ComPtr;
using framework::HRESULT;

constexpr framework::BOOL kDefaultQueue = 1;
constexpr framework::BOOL kNotPowerManaged = 0;
constexpr framework::BOOL kAllowZeroLength = 1;

HRESULT createFrameworkQueue(framework::IWDFDevice& wdfDevice, framework::IUnknown* callback) {
  ComPtr<framework::IWDFIoQueue> queue;  // released at once: the framework keeps its own reference
  const HRESULT result =
      wdfDevice.CreateIoQueue(callback, kDefaultQueue, framework::kDispatchParallel,
                              kNotPowerManaged, kAllowZeroLength, queue.put());
  if (framework::failed(result)) {
    logError(static_cast<std::uint32_t>(result), "IoQueue NOT Created");
  } else {
    logInfo("IoQueue Created.");
  }
  return result;
}

HRESULT createQueue(framework::IWDFDevice* wdfDevice, CMyDevice* device) {
  if (device == nullptr) return status::kInvalidArgument;
  const auto queue = ComPtr<CMyQueue>::adopt(framework::createObject<CMyQueue>(device));
  if (!queue) {
    logError(static_cast<std::uint32_t>(status::kOutOfMemory), "CreateInstance failed");
    return status::kOutOfMemory;
  }
  ComPtr<framework::IUnknown> unknown;
  const HRESULT result = queue->QueryInterface(framework::IUnknown::iid, unknown.putVoid());
  if (framework::failed(result)) {  // does not happen: every object has this interface
    logError(static_cast<std::uint32_t>(result), "QueryInterface failed");
    return result;
  }
  if (wdfDevice == nullptr) {
    logError(kNoError, "Invalid WDF Device");
    return result;
  }
  return createFrameworkQueue(*wdfDevice, unknown.get());
}

}  // namespace

HRESULT CMyQueue::CreateInstance(framework::IWDFDevice* wdfDevice, CMyDevice* device) {
  return runEntryPoint("CMyQueue::CreateInstance", [&] { return createQueue(wdfDevice, device); });
}

void CMyQueue::OnDeviceIoControl(framework::IWDFIoQueue* queue, framework::IWDFIoRequest* request,
                                 framework::ULONG code, framework::SIZE_T inLength,
                                 framework::SIZE_T outLength) {
  device_->ProcessIoControl(queue, request, code, inLength, outLength);
}

}  // namespace zelta
