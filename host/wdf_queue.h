// A device's I/O queue. The host supports only one default queue that dispatches device I/O
// controls in parallel (`IoEngine` does the dispatching). Requests of length 0 are always
// delivered; the queue's setting for them concerns reads and writes only.
#pragma once

#include "host/wdf_object.h"

namespace zelta::host {

class WdfDevice;

class WdfQueue final : public WdfObject<WdfQueue, framework::IWDFIoQueue> {
 public:
  WdfQueue(SharedDriverErrors errors, WdfDevice* device, framework::IUnknown* callback);

  // Null once the device is gone.
  void ZELTA_STDMETHODCALLTYPE GetDevice(framework::IWDFDevice** device) override;

  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  ConfigureRequestDispatching(framework::EnumValue type, framework::BOOL forward) override;
  framework::EnumValue ZELTA_STDMETHODCALLTYPE GetState(framework::ULONG* queued,
                                                        framework::ULONG* inDriver) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  RetrieveNextRequest(framework::IWDFIoRequest** request) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveNextRequestByFileObject(
      framework::IWDFFile* file, framework::IWDFIoRequest** request) override;
  void ZELTA_STDMETHODCALLTYPE Start() override;
  void ZELTA_STDMETHODCALLTYPE Stop(framework::IUnknown* callback) override;
  void ZELTA_STDMETHODCALLTYPE StopSynchronously() override;
  void ZELTA_STDMETHODCALLTYPE Drain(framework::IUnknown* callback) override;
  void ZELTA_STDMETHODCALLTYPE DrainSynchronously() override;
  void ZELTA_STDMETHODCALLTYPE Purge(framework::IUnknown* callback) override;
  void ZELTA_STDMETHODCALLTYPE PurgeSynchronously() override;

  // For the host. The callback for I/O controls, or null if the driver's object has none.
  framework::IQueueCallbackDeviceIoControl* deviceIoControl() const {
    return deviceIoControl_.get();
  }
  // Cuts the queue off from its device and the driver. No dispatch may be under way or follow.
  void detach();

 private:
  ParentLink<WdfDevice> device_;
  framework::ComPtr<framework::IUnknown> callback_;
  framework::ComPtr<framework::IQueueCallbackDeviceIoControl> deviceIoControl_;
};

}  // namespace zelta::host
