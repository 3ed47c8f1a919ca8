// The framework's driver object, parent of the one device that this host supports.
//
// Threads: any; `dispose` is the host's.
#pragma once

#include "host/wdf_device.h"
#include "host/wdf_object.h"

namespace zelta::host {

class WdfDriver final : public WdfObject<WdfDriver, framework::IWDFDriver> {
 public:
  explicit WdfDriver(SharedDriverErrors errors) : WdfObject(std::move(errors)) {}

  // `init` is the initialiser that the host gave to OnDeviceAdd. The callback object is referenced
  // until the device goes. Only devices without a locking constraint are implemented, and one
  // device at a time: ERROR_ALREADY_EXISTS (183) for a second.
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateDevice(framework::IWDFDeviceInitialize* init,
                                                          framework::IUnknown* callback,
                                                          framework::IWDFDevice** device) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  CreateWdfObject(framework::IUnknown* callback, framework::IWDFObject* parent,
                  framework::IWDFObject** object) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreatePreallocatedWdfMemory(
      framework::BYTE* buffer, framework::SIZE_T size, framework::IUnknown* callback,
      framework::IWDFObject* parent, framework::IWDFMemory** memory) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  CreateWdfMemory(framework::SIZE_T size, framework::IUnknown* callback,
                  framework::IWDFObject* parent, framework::IWDFMemory** memory) override;
  framework::BOOL ZELTA_STDMETHODCALLTYPE IsVersionAvailable(void* version) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  RetrieveVersionString(wchar_t* version, framework::DWORD* length) override;

  // For the host. Null before the driver has made one.
  framework::ComPtr<WdfDevice> device() const ZELTA_EXCLUDES(mutex_);

 private:
  friend class WdfObject<WdfDriver, framework::IWDFDriver>;
  void disposeChildren() ZELTA_EXCLUDES(mutex_);

  mutable platform::Mutex mutex_;
  framework::ComPtr<WdfDevice> device_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::host
