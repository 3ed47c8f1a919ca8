#include "tests/doubles/framework/fake_driver.h"

#include "contract/class_ids.h"
#include "tests/doubles/framework/fake_device.h"

#if defined(_WIN32)
#define ZELTA_FAKE_EXPORT extern "C" __declspec(dllexport)
#else
#define ZELTA_FAKE_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace zelta::test::fake_driver {

namespace {

[[maybe_unused]] constexpr framework::CLSID kClassId = kDriverClassId;
constexpr framework::GUID kReaderInterface = kSmartCardReaderInterface;

class FakeDriver final : public framework::ComObject<FakeDriver, framework::IDriverEntry> {
 public:
  HRESULT ZELTA_STDMETHODCALLTYPE OnInitialize(framework::IWDFDriver*) override {
    trace("OnInitialize");
    return resultOf(kFailInitialize);
  }
  HRESULT ZELTA_STDMETHODCALLTYPE OnDeviceAdd(framework::IWDFDriver* driver,
                                              framework::IWDFDeviceInitialize* init) override {
    trace("OnDeviceAdd");
    if (failing(kFailDeviceAdd)) return kFailure;
    if (failing(kFailNoDevice)) return framework::kOk;
    if (!failing(kFailConstraint)) init->SetLockingConstraint(framework::kCallbackConstraintNone);
    device_ = ComPtr<FakeDevice>::adopt(framework::createObject<FakeDevice>());
    if (!device_) return kNoMemory;
    ComPtr<IWDFDevice> device;
    const HRESULT result = driver->CreateDevice(
        init, static_cast<framework::IPnpCallback*>(device_.get()), device.put());
    if (framework::failed(result)) return result;
    const std::array<HRESULT, 3> results = {
        device->CreateDeviceInterface(&kReaderInterface, L"dev0"),
        device->CreateDeviceInterface(&kReaderInterface, L"hidden"),
        device->AssignDeviceInterfaceState(&kReaderInterface, L"hidden", 0)};
    for (const HRESULT each : results) {
      if (framework::failed(each)) return each;
    }
    return device->CreateDeviceInterface(&kReaderInterface, L"dev0") == framework::kOk
               ? kFailure  // published twice
               : framework::kOk;
  }
  void ZELTA_STDMETHODCALLTYPE OnDeinitialize(framework::IWDFDriver*) override {
    trace("OnDeinitialize");
    if (device_) device_->endForEver();
    device_.reset();
  }

 private:
  friend class framework::ComObject<FakeDriver, framework::IDriverEntry>;
  ~FakeDriver() { trace("driver destroyed"); }

  Counted counted_;
  ComPtr<FakeDevice> device_;
};

class FakeFactory final : public framework::ComObject<FakeFactory, framework::IClassFactory> {
 public:
  HRESULT ZELTA_STDMETHODCALLTYPE CreateInstance(framework::IUnknown*, framework::REFIID wanted,
                                                 void** out) override {
    if (failing(kFailCreateInstance)) return kFailure;
    const auto driver = ComPtr<FakeDriver>::adopt(framework::createObject<FakeDriver>());
    if (!driver) return kNoMemory;
    return driver->QueryInterface(wanted, out);
  }
  HRESULT ZELTA_STDMETHODCALLTYPE LockServer(framework::BOOL) override { return framework::kOk; }

 private:
  Counted counted_;
};

}  // namespace

}  // namespace zelta::test::fake_driver

using namespace zelta::test::fake_driver;

#if !defined(FAKE_WITHOUT_CLASS_OBJECT)
ZELTA_FAKE_EXPORT HRESULT ZELTA_STDMETHODCALLTYPE
DllGetClassObject(zelta::framework::REFCLSID classId, zelta::framework::REFIID wanted, void** out) {
  if (failing(kFailClassObject)) return kFailure;
  if (failing(kFailClass) || classId != kClassId) return zelta::framework::kClassNotAvailable;
  const auto factory = ComPtr<FakeFactory>::adopt(zelta::framework::createObject<FakeFactory>());
  if (!factory) return kNoMemory;
  return factory->QueryInterface(wanted, out);
}
#endif

ZELTA_FAKE_EXPORT HRESULT ZELTA_STDMETHODCALLTYPE DllCanUnloadNow() {
  trace("DllCanUnloadNow");
  return liveObjects == 0 && !failing(kFailUnload) ? zelta::framework::kOk
                                                   : zelta::framework::kFalse;
}

#if defined(FAKE_VERSION_MAJOR)
ZELTA_FAKE_EXPORT const std::uint32_t Microsoft_WDF_UMDF_Version[2];
const std::uint32_t Microsoft_WDF_UMDF_Version[2] = {FAKE_VERSION_MAJOR, FAKE_VERSION_MINOR};
#endif
