// The framework's driver, device, device initialiser and queue, for tests of the driver's objects.
#pragma once

#include <string>
#include <vector>

#include "tests/doubles/framework/fake_wdf.h"

namespace zelta::test {

class FakeWdfQueue final : public WdfObject<framework::IWDFIoQueue> {
 public:
  void ZELTA_STDMETHODCALLTYPE GetDevice(framework::IWDFDevice**) override { unexpected(); }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE ConfigureRequestDispatching(framework::EnumValue,
                                                                         framework::BOOL) override;
  framework::EnumValue ZELTA_STDMETHODCALLTYPE GetState(framework::ULONG*,
                                                        framework::ULONG*) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  RetrieveNextRequest(framework::IWDFIoRequest**) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  RetrieveNextRequestByFileObject(framework::IWDFFile*, framework::IWDFIoRequest**) override;
  void ZELTA_STDMETHODCALLTYPE Start() override { unexpected(); }
  void ZELTA_STDMETHODCALLTYPE Stop(framework::IUnknown*) override { unexpected(); }
  void ZELTA_STDMETHODCALLTYPE StopSynchronously() override { unexpected(); }
  void ZELTA_STDMETHODCALLTYPE Drain(framework::IUnknown*) override { unexpected(); }
  void ZELTA_STDMETHODCALLTYPE DrainSynchronously() override { unexpected(); }
  void ZELTA_STDMETHODCALLTYPE Purge(framework::IUnknown*) override { unexpected(); }
  void ZELTA_STDMETHODCALLTYPE PurgeSynchronously() override { unexpected(); }

 private:
  ~FakeWdfQueue() override = default;
};

class FakeWdfDevice final : public WdfObject<framework::IWDFDevice> {
 public:
  struct QueueSettings {
    framework::BOOL defaultQueue;
    framework::EnumValue dispatchType;
    framework::BOOL powerManaged;
    framework::BOOL allowZeroLength;
  };
  struct Interface {
    framework::GUID interfaceClass;
    std::wstring referenceString;
  };

  framework::HRESULT createQueueResult = 0;
  framework::HRESULT createInterfaceResult = 0;
  std::vector<QueueSettings> queues;
  std::vector<Interface> interfaces;
  // Of the device object and of the last queue, kept as the framework keeps them.
  framework::ComPtr<framework::IUnknown> deviceCallback;
  framework::ComPtr<framework::IUnknown> queueCallback;

  // Gives up what is kept; the driver's objects go.
  void letGo();

  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateIoQueue(framework::IUnknown* callback,
                                                           framework::BOOL defaultQueue,
                                                           framework::EnumValue dispatchType,
                                                           framework::BOOL powerManaged,
                                                           framework::BOOL allowZeroLength,
                                                           framework::IWDFIoQueue** queue) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  CreateDeviceInterface(const framework::GUID* interfaceClass, const wchar_t* name) override;

  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDevicePropertyStore(
      const wchar_t*, framework::EnumValue, void**, framework::EnumValue*) override;
  void ZELTA_STDMETHODCALLTYPE GetDriver(framework::IWDFDriver**) override { unexpected(); }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDeviceInstanceId(wchar_t*,
                                                                      framework::DWORD*) override;
  void ZELTA_STDMETHODCALLTYPE GetDefaultIoTarget(void**) override { unexpected(); }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateWdfFile(const wchar_t*, void**) override;
  void ZELTA_STDMETHODCALLTYPE GetDefaultIoQueue(framework::IWDFIoQueue**) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE AssignDeviceInterfaceState(const framework::GUID*,
                                                                        const wchar_t*,
                                                                        framework::BOOL) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDeviceName(wchar_t*,
                                                                framework::DWORD*) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE PostEvent(const framework::GUID&, framework::EnumValue,
                                                       framework::BYTE*, framework::DWORD) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE ConfigureRequestDispatching(framework::IWDFIoQueue*,
                                                                         framework::EnumValue,
                                                                         framework::BOOL) override;
  void ZELTA_STDMETHODCALLTYPE SetPnpState(framework::EnumValue, framework::EnumValue) override;
  framework::EnumValue ZELTA_STDMETHODCALLTYPE GetPnpState(framework::EnumValue) override;
  void ZELTA_STDMETHODCALLTYPE CommitPnpState() override { unexpected(); }
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateRequest(framework::IUnknown*,
                                                           framework::IWDFObject*,
                                                           framework::IWDFIoRequest**) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateSymbolicLink(const wchar_t*) override;

 private:
  ~FakeWdfDevice() override = default;
};

// Not counted: the framework's own for the length of one call.
class FakeWdfDeviceInitialize final : public framework::IWDFDeviceInitialize {
 public:
  std::vector<framework::EnumValue> lockingConstraints;

  framework::HRESULT ZELTA_STDMETHODCALLTYPE QueryInterface(framework::REFIID, void**) override;
  framework::ULONG ZELTA_STDMETHODCALLTYPE AddRef() override;
  framework::ULONG ZELTA_STDMETHODCALLTYPE Release() override;
  void ZELTA_STDMETHODCALLTYPE SetFilter() override;
  void ZELTA_STDMETHODCALLTYPE SetLockingConstraint(framework::EnumValue constraint) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDevicePropertyStore(
      const wchar_t*, framework::EnumValue, void**, framework::EnumValue*) override;
  void ZELTA_STDMETHODCALLTYPE SetPowerPolicyOwnership(framework::BOOL) override;
  void ZELTA_STDMETHODCALLTYPE AutoForwardCreateCleanupClose(framework::EnumValue) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveDeviceInstanceId(wchar_t*,
                                                                      framework::DWORD*) override;
  void ZELTA_STDMETHODCALLTYPE SetPnpCapability(framework::EnumValue,
                                                framework::EnumValue) override;
  framework::EnumValue ZELTA_STDMETHODCALLTYPE GetPnpCapability(framework::EnumValue) override;
};

class FakeWdfDriver final : public WdfObject<framework::IWDFDriver> {
 public:
  // What creating a device gives; 0 creates one.
  framework::HRESULT createDeviceResult = 0;
  framework::IWDFDeviceInitialize* lastInit = nullptr;
  // Made by the driver, with this object's own reference.
  framework::ComPtr<FakeWdfDevice> device;
  // Given to the device that is made next.
  framework::HRESULT createInterfaceResult = 0;

  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateDevice(framework::IWDFDeviceInitialize* init,
                                                          framework::IUnknown* callback,
                                                          framework::IWDFDevice** created) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateWdfObject(framework::IUnknown*,
                                                             framework::IWDFObject*,
                                                             framework::IWDFObject**) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  CreatePreallocatedWdfMemory(framework::BYTE*, framework::SIZE_T, framework::IUnknown*,
                              framework::IWDFObject*, framework::IWDFMemory**) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateWdfMemory(framework::SIZE_T,
                                                             framework::IUnknown*,
                                                             framework::IWDFObject*,
                                                             framework::IWDFMemory**) override;
  framework::BOOL ZELTA_STDMETHODCALLTYPE IsVersionAvailable(void*) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE RetrieveVersionString(wchar_t*,
                                                                   framework::DWORD*) override;

 private:
  ~FakeWdfDriver() override = default;
};

}  // namespace zelta::test
