// The framework as a driver sees it, for tests of the driver's objects and of the whole module. It
// shares no code with the product's host.
//
//   FakeFramework framework(driverEntry);
//   framework.bringUp();
//   FakeWdfRequest& request = framework.dispatch({IOCTL_SMARTCARD_GET_STATE, {}, 4});
//   framework.end();
//   EXPECT_THAT(framework.complaints(), IsEmpty());
//
// Ownership: the test owns it; it owns the framework's objects and every request, to its end.
// Threads: requests and `dispatch` from any thread; the rest one at a time.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/doubles/framework/fake_wdf_request.h"

namespace zelta::test {

// The framework's results; on success it does what the driver asks for.
struct FrameworkResults {
  framework::HRESULT createDevice = 0;
  framework::HRESULT createQueue = 0;
  framework::HRESULT createInterface = 0;
};

class FakeWdfQueue final : public FakeWdfObject<framework::IWDFIoQueue> {
 public:
  struct Settings {
    framework::BOOL defaultQueue;
    framework::EnumValue dispatchType;
    framework::BOOL powerManaged;
    framework::BOOL allowZeroLength;
  };

  FakeWdfQueue(Violations& noted, framework::IUnknown* callback, const Settings& settings);

  // Null once the framework has released the driver's object.
  framework::ComPtr<framework::IQueueCallbackDeviceIoControl> callback;
  const Settings settings;

  ZELTA_UNEXPECTED(void, GetDevice, framework::IWDFDevice**)
  ZELTA_UNEXPECTED(framework::HRESULT, ConfigureRequestDispatching, framework::EnumValue,
                   framework::BOOL)
  ZELTA_UNEXPECTED(framework::EnumValue, GetState, framework::ULONG*, framework::ULONG*)
  ZELTA_UNEXPECTED(framework::HRESULT, RetrieveNextRequest, framework::IWDFIoRequest**)
  ZELTA_UNEXPECTED(framework::HRESULT, RetrieveNextRequestByFileObject, framework::IWDFFile*,
                   framework::IWDFIoRequest**)
  ZELTA_UNEXPECTED(void, Start)
  ZELTA_UNEXPECTED(void, Stop, framework::IUnknown*)
  ZELTA_UNEXPECTED(void, StopSynchronously)
  ZELTA_UNEXPECTED(void, Drain, framework::IUnknown*)
  ZELTA_UNEXPECTED(void, DrainSynchronously)
  ZELTA_UNEXPECTED(void, Purge, framework::IUnknown*)
  ZELTA_UNEXPECTED(void, PurgeSynchronously)
};

class FakeWdfDevice final : public FakeWdfObject<framework::IWDFDevice> {
 public:
  struct Interface {
    framework::GUID interfaceClass;
    std::wstring referenceString;
  };

  FakeWdfDevice(Violations& noted, const FrameworkResults& results,
                framework::IUnknown* deviceCallback)
      : FakeWdfObject("device", noted), callback(deviceCallback), results_(results) {}

  // The framework's reference on the driver's object; null once it has released that.
  framework::ComPtr<framework::IUnknown> callback;
  std::vector<Interface> interfaces;
  std::vector<std::unique_ptr<FakeWdfQueue>> queues;

  // Releases the driver's objects and this one.
  void remove();

  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateIoQueue(framework::IUnknown* queueCallback,
                                                           framework::BOOL defaultQueue,
                                                           framework::EnumValue dispatchType,
                                                           framework::BOOL powerManaged,
                                                           framework::BOOL allowZeroLength,
                                                           framework::IWDFIoQueue** queue) override;
  framework::HRESULT ZELTA_STDMETHODCALLTYPE
  CreateDeviceInterface(const framework::GUID* interfaceClass, const wchar_t* name) override;

  using BOOL = framework::BOOL;
  using DWORD = framework::DWORD;
  using EnumValue = framework::EnumValue;
  using GUID = framework::GUID;
  using HRESULT = framework::HRESULT;
  ZELTA_UNEXPECTED(HRESULT, RetrieveDevicePropertyStore, const wchar_t*, EnumValue, void**,
                   EnumValue*)
  ZELTA_UNEXPECTED(void, GetDriver, framework::IWDFDriver**)
  ZELTA_UNEXPECTED(HRESULT, RetrieveDeviceInstanceId, wchar_t*, DWORD*)
  ZELTA_UNEXPECTED(void, GetDefaultIoTarget, void**)
  ZELTA_UNEXPECTED(HRESULT, CreateWdfFile, const wchar_t*, void**)
  ZELTA_UNEXPECTED(void, GetDefaultIoQueue, framework::IWDFIoQueue**)
  ZELTA_UNEXPECTED(HRESULT, AssignDeviceInterfaceState, const GUID*, const wchar_t*, BOOL)
  ZELTA_UNEXPECTED(HRESULT, RetrieveDeviceName, wchar_t*, DWORD*)
  ZELTA_UNEXPECTED(HRESULT, PostEvent, const GUID&, EnumValue, framework::BYTE*, DWORD)
  ZELTA_UNEXPECTED(HRESULT, ConfigureRequestDispatching, framework::IWDFIoQueue*, EnumValue, BOOL)
  ZELTA_UNEXPECTED(void, SetPnpState, EnumValue, EnumValue)
  ZELTA_UNEXPECTED(EnumValue, GetPnpState, EnumValue)
  ZELTA_UNEXPECTED(void, CommitPnpState)
  ZELTA_UNEXPECTED(HRESULT, CreateRequest, framework::IUnknown*, framework::IWDFObject*,
                   framework::IWDFIoRequest**)
  ZELTA_UNEXPECTED(HRESULT, CreateSymbolicLink, const wchar_t*)

 private:
  const FrameworkResults& results_;
};

// Belongs to the framework during a call; its references are not counted.
class FakeWdfDeviceInitialize final : public framework::IWDFDeviceInitialize {
 public:
  explicit FakeWdfDeviceInitialize(Violations& noted) : violations(noted) {}

  Violations& violations;
  std::vector<framework::EnumValue> lockingConstraints;

  framework::ULONG ZELTA_STDMETHODCALLTYPE AddRef() override { return 1; }
  framework::ULONG ZELTA_STDMETHODCALLTYPE Release() override { return 1; }
  void ZELTA_STDMETHODCALLTYPE SetLockingConstraint(framework::EnumValue constraint) override {
    lockingConstraints.push_back(constraint);
  }
  using EnumValue = framework::EnumValue;
  using HRESULT = framework::HRESULT;
  ZELTA_UNEXPECTED(HRESULT, QueryInterface, framework::REFIID, void**)
  ZELTA_UNEXPECTED(void, SetFilter)
  ZELTA_UNEXPECTED(HRESULT, RetrieveDevicePropertyStore, const wchar_t*, EnumValue, void**,
                   EnumValue*)
  ZELTA_UNEXPECTED(void, SetPowerPolicyOwnership, framework::BOOL)
  ZELTA_UNEXPECTED(void, AutoForwardCreateCleanupClose, EnumValue)
  ZELTA_UNEXPECTED(HRESULT, RetrieveDeviceInstanceId, wchar_t*, framework::DWORD*)
  ZELTA_UNEXPECTED(void, SetPnpCapability, EnumValue, EnumValue)
  ZELTA_UNEXPECTED(EnumValue, GetPnpCapability, EnumValue)
};

class FakeWdfDriver final : public FakeWdfObject<framework::IWDFDriver> {
 public:
  FakeWdfDriver(Violations& noted, const FrameworkResults& results)
      : FakeWdfObject("driver", noted), results_(results) {}

  std::vector<std::unique_ptr<FakeWdfDevice>> devices;
  framework::IWDFDeviceInitialize* lastInit = nullptr;

  framework::HRESULT ZELTA_STDMETHODCALLTYPE CreateDevice(framework::IWDFDeviceInitialize* init,
                                                          framework::IUnknown* callback,
                                                          framework::IWDFDevice** device) override;
  using HRESULT = framework::HRESULT;
  ZELTA_UNEXPECTED(HRESULT, CreateWdfObject, framework::IUnknown*, framework::IWDFObject*,
                   framework::IWDFObject**)
  ZELTA_UNEXPECTED(HRESULT, CreatePreallocatedWdfMemory, framework::BYTE*, framework::SIZE_T,
                   framework::IUnknown*, framework::IWDFObject*, framework::IWDFMemory**)
  ZELTA_UNEXPECTED(HRESULT, CreateWdfMemory, framework::SIZE_T, framework::IUnknown*,
                   framework::IWDFObject*, framework::IWDFMemory**)
  ZELTA_UNEXPECTED(framework::BOOL, IsVersionAvailable, void*)
  ZELTA_UNEXPECTED(HRESULT, RetrieveVersionString, wchar_t*, framework::DWORD*)

 private:
  const FrameworkResults& results_;
};

class FakeFramework {
 public:
  // `entry` may be null for a test that calls the driver's objects itself.
  explicit FakeFramework(framework::ComPtr<framework::IDriverEntry> entry = nullptr);
  ~FakeFramework();
  FakeFramework(const FakeFramework&) = delete;
  FakeFramework& operator=(const FakeFramework&) = delete;

  // The callbacks in their order; of several devices, the last one's.
  framework::HRESULT initialize() { return entry_->OnInitialize(&driver); }
  framework::HRESULT addDevice() { return entry_->OnDeviceAdd(&driver, &init); }
  framework::HRESULT prepareHardware() { return hardware()->OnPrepareHardware(device()); }
  framework::HRESULT enterD0();
  framework::HRESULT exitD0();
  framework::HRESULT releaseHardware() { return hardware()->OnReleaseHardware(device()); }
  void removeDevice() { device()->remove(); }
  // Drops the driver.
  void deinitialize();

  // False if one of the callbacks failed.
  bool bringUp();
  // As far as the device that is up.
  void takeDown();

  // Passes a request to the driver on the calling thread.
  FakeWdfRequest& dispatch(const RequestSetup& setup) ZELTA_EXCLUDES(mutex_);
  void dispatch(FakeWdfRequest& request);
  // A request that is not dispatched yet.
  FakeWdfRequest& makeRequest(const RequestSetup& setup = {}) ZELTA_EXCLUDES(mutex_);

  // The last device; null before the first.
  FakeWdfDevice* device() const;
  FakeWdfQueue& queue() const { return *device()->queues.back(); }
  template <typename Interface>
  framework::ComPtr<Interface> deviceCallback() const {
    framework::ComPtr<Interface> found;
    device()->callback->QueryInterface(Interface::iid, found.putVoid());
    return found;
  }
  framework::ComPtr<framework::IPnpCallback> pnp() const {
    return deviceCallback<framework::IPnpCallback>();
  }
  framework::ComPtr<framework::IPnpCallbackHardware> hardware() const {
    return deviceCallback<framework::IPnpCallbackHardware>();
  }

  // All violations so far: forbidden calls, requests not completed exactly once, references not
  // released, contexts not cleaned. Empty is good. Call at the end of a test, when no code of the
  // driver runs any more.
  std::vector<std::string> complaints() const ZELTA_EXCLUDES(mutex_);

  FrameworkResults results;
  Violations violations;
  FakeWdfDriver driver{violations, results};
  FakeWdfDeviceInitialize init{violations};

 private:
  framework::ComPtr<framework::IDriverEntry> entry_;
  mutable platform::Mutex mutex_;
  std::vector<std::unique_ptr<FakeWdfRequest>> requests_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::test
