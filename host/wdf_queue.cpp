#include "host/wdf_queue.h"

#include "host/wdf_device.h"

namespace zelta::host {

using framework::EnumValue;
using framework::HRESULT;
using framework::ULONG;

WdfQueue::WdfQueue(SharedDriverErrors errors, WdfDevice* device, framework::IUnknown* callback)
    : WdfObject(std::move(errors)), device_(device), callback_(callback) {
  if (callback_) {
    callback_->QueryInterface(framework::IQueueCallbackDeviceIoControl::iid,
                              deviceIoControl_.putVoid());
  }
}

void WdfQueue::GetDevice(framework::IWDFDevice** device) {
  if (device != nullptr) *device = device_.get().detach();
}

void WdfQueue::detach() {
  device_.cut();
  deviceIoControl_.reset();
  callback_.reset();
}

HRESULT WdfQueue::ConfigureRequestDispatching(EnumValue, framework::BOOL) {
  return errors().notImplemented("IWDFIoQueue::ConfigureRequestDispatching");
}

EnumValue WdfQueue::GetState(ULONG*, ULONG*) {
  errors().notImplemented("IWDFIoQueue::GetState");
  return 0;
}

HRESULT WdfQueue::RetrieveNextRequest(framework::IWDFIoRequest**) {
  return errors().notImplemented("IWDFIoQueue::RetrieveNextRequest");
}

HRESULT WdfQueue::RetrieveNextRequestByFileObject(framework::IWDFFile*,
                                                  framework::IWDFIoRequest**) {
  return errors().notImplemented("IWDFIoQueue::RetrieveNextRequestByFileObject");
}

void WdfQueue::Start() { errors().notImplemented("IWDFIoQueue::Start"); }

void WdfQueue::Stop(framework::IUnknown*) { errors().notImplemented("IWDFIoQueue::Stop"); }

void WdfQueue::StopSynchronously() { errors().notImplemented("IWDFIoQueue::StopSynchronously"); }

void WdfQueue::Drain(framework::IUnknown*) { errors().notImplemented("IWDFIoQueue::Drain"); }

void WdfQueue::DrainSynchronously() { errors().notImplemented("IWDFIoQueue::DrainSynchronously"); }

void WdfQueue::Purge(framework::IUnknown*) { errors().notImplemented("IWDFIoQueue::Purge"); }

void WdfQueue::PurgeSynchronously() { errors().notImplemented("IWDFIoQueue::PurgeSynchronously"); }

}  // namespace zelta::host
