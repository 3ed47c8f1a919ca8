#include "tests/doubles/framework/fake_wdf_device.h"

#include <gtest/gtest.h>

#include <new>

#include "contract/status.h"

namespace zelta::test {

using framework::BOOL;
using framework::ComPtr;
using framework::DWORD;
using framework::EnumValue;
using framework::HRESULT;

namespace {

// The framework reports its own lack of memory as a status.
template <typename Body>
HRESULT withoutExceptions(Body body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return status::kOutOfMemory;
  }
}

}  // namespace

HRESULT FakeWdfQueue::ConfigureRequestDispatching(EnumValue, BOOL) { return unexpected(); }
EnumValue FakeWdfQueue::GetState(framework::ULONG*, framework::ULONG*) { return unexpected(); }
HRESULT FakeWdfQueue::RetrieveNextRequest(framework::IWDFIoRequest**) { return unexpected(); }
HRESULT FakeWdfQueue::RetrieveNextRequestByFileObject(framework::IWDFFile*,
                                                      framework::IWDFIoRequest**) {
  return unexpected();
}

HRESULT FakeWdfDevice::CreateIoQueue(framework::IUnknown* callback, BOOL defaultQueue,
                                     EnumValue dispatchType, BOOL powerManaged,
                                     BOOL allowZeroLength, framework::IWDFIoQueue** queue) {
  *queue = nullptr;
  return withoutExceptions([&] {
    queues.push_back({defaultQueue, dispatchType, powerManaged, allowZeroLength});
    if (framework::failed(createQueueResult)) return createQueueResult;
    *queue = new FakeWdfQueue;
    queueCallback = ComPtr<framework::IUnknown>(callback);
    return framework::kOk;
  });
}

HRESULT FakeWdfDevice::CreateDeviceInterface(const framework::GUID* interfaceClass,
                                             const wchar_t* name) {
  return withoutExceptions([&] {
    interfaces.push_back({*interfaceClass, name});
    return createInterfaceResult;
  });
}

void FakeWdfDevice::letGo() {
  queueCallback.reset();
  deviceCallback.reset();
}

HRESULT FakeWdfDevice::RetrieveDevicePropertyStore(const wchar_t*, EnumValue, void**, EnumValue*) {
  return unexpected();
}
HRESULT FakeWdfDevice::RetrieveDeviceInstanceId(wchar_t*, DWORD*) { return unexpected(); }
HRESULT FakeWdfDevice::CreateWdfFile(const wchar_t*, void**) { return unexpected(); }
void FakeWdfDevice::GetDefaultIoQueue(framework::IWDFIoQueue**) { unexpected(); }
HRESULT FakeWdfDevice::AssignDeviceInterfaceState(const framework::GUID*, const wchar_t*, BOOL) {
  return unexpected();
}
HRESULT FakeWdfDevice::RetrieveDeviceName(wchar_t*, DWORD*) { return unexpected(); }
HRESULT FakeWdfDevice::PostEvent(const framework::GUID&, EnumValue, framework::BYTE*, DWORD) {
  return unexpected();
}
HRESULT FakeWdfDevice::ConfigureRequestDispatching(framework::IWDFIoQueue*, EnumValue, BOOL) {
  return unexpected();
}
void FakeWdfDevice::SetPnpState(EnumValue, EnumValue) { unexpected(); }
EnumValue FakeWdfDevice::GetPnpState(EnumValue) { return unexpected(); }
HRESULT FakeWdfDevice::CreateRequest(framework::IUnknown*, framework::IWDFObject*,
                                     framework::IWDFIoRequest**) {
  return unexpected();
}
HRESULT FakeWdfDevice::CreateSymbolicLink(const wchar_t*) { return unexpected(); }

namespace {

HRESULT unexpectedOfInitialiser() {
  ADD_FAILURE() << "an operation that the driver has no reason to call";
  return status::kNotSupported;
}

}  // namespace

HRESULT FakeWdfDeviceInitialize::QueryInterface(framework::REFIID, void**) {
  return unexpectedOfInitialiser();
}
framework::ULONG FakeWdfDeviceInitialize::AddRef() { return 1; }
framework::ULONG FakeWdfDeviceInitialize::Release() { return 1; }
void FakeWdfDeviceInitialize::SetFilter() { unexpectedOfInitialiser(); }
void FakeWdfDeviceInitialize::SetLockingConstraint(EnumValue constraint) {
  lockingConstraints.push_back(constraint);
}
HRESULT FakeWdfDeviceInitialize::RetrieveDevicePropertyStore(const wchar_t*, EnumValue, void**,
                                                             EnumValue*) {
  return unexpectedOfInitialiser();
}
void FakeWdfDeviceInitialize::SetPowerPolicyOwnership(BOOL) { unexpectedOfInitialiser(); }
void FakeWdfDeviceInitialize::AutoForwardCreateCleanupClose(EnumValue) {
  unexpectedOfInitialiser();
}
HRESULT FakeWdfDeviceInitialize::RetrieveDeviceInstanceId(wchar_t*, DWORD*) {
  return unexpectedOfInitialiser();
}
void FakeWdfDeviceInitialize::SetPnpCapability(EnumValue, EnumValue) { unexpectedOfInitialiser(); }
EnumValue FakeWdfDeviceInitialize::GetPnpCapability(EnumValue) { return unexpectedOfInitialiser(); }

HRESULT FakeWdfDriver::CreateDevice(framework::IWDFDeviceInitialize* init,
                                    framework::IUnknown* callback,
                                    framework::IWDFDevice** created) {
  lastInit = init;
  *created = nullptr;
  if (framework::failed(createDeviceResult)) return createDeviceResult;
  return withoutExceptions([&] {
    device = ComPtr<FakeWdfDevice>::adopt(new FakeWdfDevice);
    device->deviceCallback = ComPtr<framework::IUnknown>(callback);
    device->createInterfaceResult = createInterfaceResult;
    device->AddRef();
    *created = device.get();
    return framework::kOk;
  });
}

HRESULT FakeWdfDriver::CreateWdfObject(framework::IUnknown*, framework::IWDFObject*,
                                       framework::IWDFObject**) {
  return unexpected();
}
HRESULT FakeWdfDriver::CreatePreallocatedWdfMemory(framework::BYTE*, framework::SIZE_T,
                                                   framework::IUnknown*, framework::IWDFObject*,
                                                   framework::IWDFMemory**) {
  return unexpected();
}
HRESULT FakeWdfDriver::CreateWdfMemory(framework::SIZE_T, framework::IUnknown*,
                                       framework::IWDFObject*, framework::IWDFMemory**) {
  return unexpected();
}
BOOL FakeWdfDriver::IsVersionAvailable(void*) { return unexpected(); }
HRESULT FakeWdfDriver::RetrieveVersionString(wchar_t*, DWORD*) { return unexpected(); }

}  // namespace zelta::test
