// The callback object of the device's one I/O queue: passes every I/O control to the device.
//
// Ownership: the framework's queue keeps it; it keeps its device. Threads: the queue dispatches in
// parallel; nothing here is changed after creation.
#pragma once

#include "driver/device/my_device.h"
#include "driver/request/module_reference.h"
#include "framework/com_object.h"
#include "framework/wdf.h"

namespace zelta {

class CMyQueue final
    : public framework::ComObject<CMyQueue, framework::IQueueCallbackDeviceIoControl> {
 public:
  // Takes a reference on the device.
  explicit CMyQueue(CMyDevice* device) : device_(device) {}

  // Creates the default queue of the framework's device with a callback object for `device`.
  // Intentional: without a framework's device it makes no queue and succeeds.
  [[nodiscard]] static framework::HRESULT CreateInstance(framework::IWDFDevice* wdfDevice,
                                                         CMyDevice* device);

  // Neither logs nor completes anything itself.
  void ZELTA_STDMETHODCALLTYPE OnDeviceIoControl(framework::IWDFIoQueue* queue,
                                                 framework::IWDFIoRequest* request,
                                                 framework::ULONG code, framework::SIZE_T inLength,
                                                 framework::SIZE_T outLength) override;

 private:
  framework::ComPtr<CMyDevice> device_;
  ModuleReference module_;
};

}  // namespace zelta
