#include "host/wdf_device.h"

#include <algorithm>

#include "host/wdf_driver.h"

namespace zelta::host {

using framework::BOOL;
using framework::ComPtr;
using framework::DWORD;
using framework::EnumValue;
using framework::GUID;
using framework::HRESULT;
using platform::MutexLock;

WdfDevice::WdfDevice(SharedDriverErrors errors, WdfDriver* driver, framework::IUnknown* callback)
    : WdfObject(std::move(errors)), driver_(driver), callback_(callback) {
  if (!callback_) return;
  callback_->QueryInterface(framework::IPnpCallback::iid, pnp_.putVoid());
  callback_->QueryInterface(framework::IPnpCallbackHardware::iid, hardware_.putVoid());
}

void WdfDevice::GetDriver(framework::IWDFDriver** driver) {
  if (driver != nullptr) *driver = driver_.get().detach();
}

void WdfDevice::GetDefaultIoQueue(framework::IWDFIoQueue** queue) {
  if (queue != nullptr) *queue = defaultQueue().detach();
}

HRESULT WdfDevice::CreateIoQueue(framework::IUnknown* callback, BOOL defaultQueue,
                                 EnumValue dispatchType, BOOL, BOOL,
                                 framework::IWDFIoQueue** queue) {
  if (queue == nullptr) return framework::kPointer;
  *queue = nullptr;
  if (defaultQueue == 0 || dispatchType != framework::kDispatchParallel) {
    return errors().notImplemented(
        "IWDFDevice::CreateIoQueue for another than a default, "
        "parallel queue");
  }
  return withoutMemoryErrors([&] {
    ComPtr<WdfQueue> made = makeObject<WdfQueue>(sharedErrors(), this, callback);
    const MutexLock lock(mutex_);
    if (queue_) return kAlreadyExists;
    queue_ = made;
    *queue = made.detach();
    return framework::kOk;
  });
}

WdfDevice::PublishedInterface* WdfDevice::findInterface(const GUID& interfaceClass,
                                                        const std::wstring& name) {
  const auto found = std::find_if(
      interfaces_.begin(), interfaces_.end(), [&](const PublishedInterface& published) {
        return published.interfaceClass == interfaceClass && published.name == name;
      });
  return found == interfaces_.end() ? nullptr : &*found;
}

HRESULT WdfDevice::CreateDeviceInterface(const GUID* interfaceClass,
                                         const wchar_t* referenceString) {
  if (interfaceClass == nullptr) return framework::kPointer;
  return withoutMemoryErrors([&] {
    const std::wstring name = referenceString == nullptr ? L"" : referenceString;
    const MutexLock lock(mutex_);
    if (findInterface(*interfaceClass, name) != nullptr) return kAlreadyExists;
    interfaces_.push_back({*interfaceClass, name, true});
    return framework::kOk;
  });
}

HRESULT WdfDevice::AssignDeviceInterfaceState(const GUID* interfaceClass,
                                              const wchar_t* referenceString, BOOL enable) {
  if (interfaceClass == nullptr) return framework::kPointer;
  return withoutMemoryErrors([&] {
    const std::wstring name = referenceString == nullptr ? L"" : referenceString;
    const MutexLock lock(mutex_);
    PublishedInterface* published = findInterface(*interfaceClass, name);
    if (published == nullptr) return kNotFound;
    published->enabled = enable != 0;
    return framework::kOk;
  });
}

ComPtr<WdfQueue> WdfDevice::defaultQueue() const {
  const MutexLock lock(mutex_);
  return queue_;
}

std::vector<std::wstring> WdfDevice::interfaces() const {
  std::vector<std::wstring> names;
  const MutexLock lock(mutex_);
  for (const PublishedInterface& published : interfaces_) {
    if (published.enabled) names.push_back(published.name);
  }
  return names;
}

ComPtr<WdfFile> WdfDevice::openFile(const std::wstring& name) {
  const MutexLock lock(mutex_);
  const bool published = std::any_of(
      interfaces_.begin(), interfaces_.end(),
      [&](const PublishedInterface& entry) { return entry.enabled && entry.name == name; });
  if (!published) return nullptr;
  ComPtr<WdfFile> file = makeObject<WdfFile>(sharedErrors(), this, L"\\" + name);
  files_.push_back(file);
  return file;
}

void WdfDevice::closeFile(const WdfFile& file) {
  ComPtr<WdfFile> closed;  // released without the lock held
  const MutexLock lock(mutex_);
  const auto entry = std::find_if(files_.begin(), files_.end(),
                                  [&](const ComPtr<WdfFile>& open) { return open.get() == &file; });
  if (entry == files_.end()) return;
  closed = std::move(*entry);
  files_.erase(entry);
}

void WdfDevice::disposeChildren() {
  ComPtr<WdfQueue> queue;
  std::vector<ComPtr<WdfFile>> files;
  {
    const MutexLock lock(mutex_);
    interfaces_.clear();
    queue = std::move(queue_);
    files.swap(files_);
  }
  for (const ComPtr<WdfFile>& file : files) {
    file->dispose();
    file->device().cut();
  }
  if (!queue) return;
  queue->dispose();
  queue->detach();
}

void WdfDevice::detach() {
  driver_.cut();
  hardware_.reset();
  pnp_.reset();
  callback_.reset();
}

HRESULT WdfDevice::RetrieveDevicePropertyStore(const wchar_t*, EnumValue, void**, EnumValue*) {
  return errors().notImplemented("IWDFDevice::RetrieveDevicePropertyStore");
}

HRESULT WdfDevice::RetrieveDeviceInstanceId(wchar_t*, DWORD*) {
  return errors().notImplemented("IWDFDevice::RetrieveDeviceInstanceId");
}

void WdfDevice::GetDefaultIoTarget(void** target) {
  errors().notImplemented("IWDFDevice::GetDefaultIoTarget");
  if (target != nullptr) *target = nullptr;
}

HRESULT WdfDevice::CreateWdfFile(const wchar_t*, void**) {
  return errors().notImplemented("IWDFDevice::CreateWdfFile");
}

HRESULT WdfDevice::RetrieveDeviceName(wchar_t*, DWORD*) {
  return errors().notImplemented("IWDFDevice::RetrieveDeviceName");
}

HRESULT WdfDevice::PostEvent(const GUID&, EnumValue, framework::BYTE*, DWORD) {
  return errors().notImplemented("IWDFDevice::PostEvent");
}

HRESULT WdfDevice::ConfigureRequestDispatching(framework::IWDFIoQueue*, EnumValue, BOOL) {
  return errors().notImplemented("IWDFDevice::ConfigureRequestDispatching");
}

void WdfDevice::SetPnpState(EnumValue, EnumValue) {
  errors().notImplemented("IWDFDevice::SetPnpState");
}

EnumValue WdfDevice::GetPnpState(EnumValue) {
  errors().notImplemented("IWDFDevice::GetPnpState");
  return 0;
}

void WdfDevice::CommitPnpState() { errors().notImplemented("IWDFDevice::CommitPnpState"); }

HRESULT WdfDevice::CreateRequest(framework::IUnknown*, framework::IWDFObject*,
                                 framework::IWDFIoRequest**) {
  return errors().notImplemented("IWDFDevice::CreateRequest");
}

HRESULT WdfDevice::CreateSymbolicLink(const wchar_t*) {
  return errors().notImplemented("IWDFDevice::CreateSymbolicLink");
}

void WdfDeviceInitialize::SetFilter() {
  errors_->notImplemented("IWDFDeviceInitialize::SetFilter");
}

void WdfDeviceInitialize::SetLockingConstraint(EnumValue constraint) { constraint_ = constraint; }

HRESULT WdfDeviceInitialize::RetrieveDevicePropertyStore(const wchar_t*, EnumValue, void**,
                                                         EnumValue*) {
  return errors_->notImplemented("IWDFDeviceInitialize::RetrieveDevicePropertyStore");
}

void WdfDeviceInitialize::SetPowerPolicyOwnership(BOOL) {
  errors_->notImplemented("IWDFDeviceInitialize::SetPowerPolicyOwnership");
}

void WdfDeviceInitialize::AutoForwardCreateCleanupClose(EnumValue) {
  errors_->notImplemented("IWDFDeviceInitialize::AutoForwardCreateCleanupClose");
}

HRESULT WdfDeviceInitialize::RetrieveDeviceInstanceId(wchar_t*, DWORD*) {
  return errors_->notImplemented("IWDFDeviceInitialize::RetrieveDeviceInstanceId");
}

void WdfDeviceInitialize::SetPnpCapability(EnumValue, EnumValue) {
  errors_->notImplemented("IWDFDeviceInitialize::SetPnpCapability");
}

EnumValue WdfDeviceInitialize::GetPnpCapability(EnumValue) {
  errors_->notImplemented("IWDFDeviceInitialize::GetPnpCapability");
  return 0;
}

}  // namespace zelta::host
