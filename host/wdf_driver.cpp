#include "host/wdf_driver.h"

namespace zelta::host {

using framework::ComPtr;
using framework::HRESULT;
using platform::MutexLock;

HRESULT WdfDriver::CreateDevice(framework::IWDFDeviceInitialize* init,
                                framework::IUnknown* callback, framework::IWDFDevice** device) {
  if (device == nullptr) return framework::kPointer;
  *device = nullptr;
  if (init == nullptr) return kInvalidArgument;
  // The only initialisers are this host's own.
  const auto* initialize = static_cast<WdfDeviceInitialize*>(init);
  if (initialize->lockingConstraint() != framework::kCallbackConstraintNone) {
    return errors().notImplemented("IWDFDriver::CreateDevice with a locking constraint");
  }
  return withoutMemoryErrors([&] {
    const MutexLock lock(mutex_);
    if (device_) return kAlreadyExists;
    device_ = makeObject<WdfDevice>(sharedErrors(), this, callback);
    *device = ComPtr<WdfDevice>(device_).detach();
    return framework::kOk;
  });
}

ComPtr<WdfDevice> WdfDriver::device() const {
  const MutexLock lock(mutex_);
  return device_;
}

void WdfDriver::disposeChildren() {
  ComPtr<WdfDevice> device;
  {
    const MutexLock lock(mutex_);
    device = std::move(device_);
  }
  if (!device) return;
  device->dispose();
  device->detach();
}

HRESULT WdfDriver::CreateWdfObject(framework::IUnknown*, framework::IWDFObject*,
                                   framework::IWDFObject**) {
  return errors().notImplemented("IWDFDriver::CreateWdfObject");
}

HRESULT WdfDriver::CreatePreallocatedWdfMemory(framework::BYTE*, framework::SIZE_T,
                                               framework::IUnknown*, framework::IWDFObject*,
                                               framework::IWDFMemory**) {
  return errors().notImplemented("IWDFDriver::CreatePreallocatedWdfMemory");
}

HRESULT WdfDriver::CreateWdfMemory(framework::SIZE_T, framework::IUnknown*, framework::IWDFObject*,
                                   framework::IWDFMemory**) {
  return errors().notImplemented("IWDFDriver::CreateWdfMemory");
}

framework::BOOL WdfDriver::IsVersionAvailable(void*) {
  errors().notImplemented("IWDFDriver::IsVersionAvailable");
  return 0;
}

HRESULT WdfDriver::RetrieveVersionString(wchar_t*, framework::DWORD*) {
  return errors().notImplemented("IWDFDriver::RetrieveVersionString");
}

}  // namespace zelta::host
