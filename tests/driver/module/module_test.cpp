// The module's entry points and the driver object, as the host uses them.
#include "driver/module/module.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contract/class_ids.h"
#include "driver/module/build_version.h"
#include "driver/module/start_banner.h"
#include "platform/process/ports.h"
#include "tests/doubles/framework/fake_wdf_device.h"
#include "tests/support/fake_winsock.h"
#include "tests/support/log_capture.h"

// The exported names, whose source is linked into this program.
extern "C" {
struct FrameworkVersion {
  std::uint32_t major;
  std::uint32_t minor;
  std::uint32_t service;
};
extern const FrameworkVersion Microsoft_WDF_UMDF_Version;
zelta::framework::HRESULT ZELTA_STDMETHODCALLTYPE DllGetClassObject(zelta::framework::REFCLSID,
                                                                    zelta::framework::REFIID,
                                                                    void**);
zelta::framework::HRESULT ZELTA_STDMETHODCALLTYPE DllCanUnloadNow();
zelta::framework::HRESULT ZELTA_STDMETHODCALLTYPE DllRegisterServer();
zelta::framework::HRESULT ZELTA_STDMETHODCALLTYPE DllUnregisterServer();
}

namespace zelta {
namespace {

using framework::ComPtr;
using framework::IClassFactory;
using framework::IDriverEntry;
using test::LogCapture;
using test::LogRecord;
using testing::ElementsAre;
using testing::StartsWith;

class Module : public testing::Test {
 protected:
  ~Module() override { EXPECT_EQ(DllCanUnloadNow(), 0) << "an object of the module is left"; }

  ComPtr<IClassFactory> factory() {
    ComPtr<IClassFactory> found;
    EXPECT_EQ(DllGetClassObject(kDriverClassId, IClassFactory::iid, found.putVoid()), 0);
    return found;
  }

  ComPtr<IDriverEntry> driver() {
    ComPtr<IDriverEntry> made;
    EXPECT_EQ(factory()->CreateInstance(nullptr, IDriverEntry::iid, made.putVoid()), 0);
    return made;
  }

  void expectSection(const std::string& name) {
    const auto records = log_.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0], test::debug("Start section:" + name));
    EXPECT_THAT(records[1].text, StartsWith("End section:" + name + " elapsed:"));
  }

  LogCapture log_;
};

TEST_F(Module, HasTheFrameworkVersionWithAThirdNumber) {
  EXPECT_EQ(Microsoft_WDF_UMDF_Version.major, 1u);
  EXPECT_EQ(Microsoft_WDF_UMDF_Version.minor, 11u);
  EXPECT_EQ(Microsoft_WDF_UMDF_Version.service, 0u);
}

TEST_F(Module, GivesTheDriversClassFactory) {
  ComPtr<IClassFactory> found;
  EXPECT_EQ(DllGetClassObject(kDriverClassId, IClassFactory::iid, found.putVoid()), 0);
  EXPECT_TRUE(found);
  expectSection("DllGetClassObject");
}

TEST_F(Module, HasNoOtherClass) {
  framework::CLSID other = kDriverClassId;
  other.data1 ^= 1;
  void* out = &other;
  EXPECT_EQ(DllGetClassObject(other, IClassFactory::iid, &out), framework::hresult(0x80040111));
  EXPECT_EQ(out, nullptr);
  expectSection("DllGetClassObject");
}

TEST_F(Module, FactoryHasNoOtherInterface) {
  void* out = this;
  EXPECT_EQ(DllGetClassObject(kDriverClassId, IDriverEntry::iid, &out), framework::kNoInterface);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(DllGetClassObject(kDriverClassId, IClassFactory::iid, nullptr), framework::kPointer);
}

TEST_F(Module, FactoryMakesTheDriverWithItsOnlyInterface) {
  const auto made = driver();
  ASSERT_TRUE(made);
  EXPECT_EQ(made->AddRef(), 2u);
  made->Release();
  ComPtr<framework::IUnknown> found;
  EXPECT_EQ(made->QueryInterface(framework::IUnknown::iid, found.putVoid()), 0);
  EXPECT_EQ(made->QueryInterface(framework::IPnpCallback::iid, found.putVoid()),
            framework::kNoInterface);
  EXPECT_EQ(log_.count("Start section:CMyDriver::CMyDriver"), 1u);
}

TEST_F(Module, FactoryRefusesAggregationAndBadArguments) {
  const auto made = factory();
  void* out = this;
  EXPECT_EQ(made->CreateInstance(made.get(), IDriverEntry::iid, &out),
            framework::hresult(0x80040110));
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(made->CreateInstance(nullptr, IDriverEntry::iid, nullptr), framework::kPointer);
  out = this;
  EXPECT_EQ(made->CreateInstance(nullptr, IClassFactory::iid, &out), framework::kNoInterface);
  EXPECT_EQ(out, nullptr);
}

TEST_F(Module, MayBeUnloadedWithoutObjectsAndShutsTheLoggerDownLast) {
  logInfo("a logger");
  EXPECT_EQ(DllCanUnloadNow(), 0);
  const auto records = log_.records();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[1], test::debug("Start section:DllCanUnloadNow"));
  EXPECT_THAT(records[2].text, StartsWith("End section:DllCanUnloadNow elapsed:"));
  EXPECT_EQ(log_.shutDowns(), 1);
  EXPECT_EQ(log_.recordsAtShutDown(), 3u);  // the section's end line was written before
}

TEST_F(Module, AskedWithoutALoggerAnswersAndLogsNothing) {
  EXPECT_EQ(DllCanUnloadNow(), 0);
  const auto held = factory();
  log_.clear();
  EXPECT_EQ(DllCanUnloadNow(), 1);
  EXPECT_TRUE(log_.records().empty());
  EXPECT_EQ(log_.shutDowns(), 0);
}

TEST_F(Module, MayNotBeUnloadedWhileAnObjectLives) {
  {
    const auto held = factory();
    EXPECT_EQ(DllCanUnloadNow(), 1);
  }
  {
    const auto held = driver();
    EXPECT_EQ(DllCanUnloadNow(), 1);
  }
  EXPECT_EQ(log_.shutDowns(), 0);
  EXPECT_EQ(DllCanUnloadNow(), 0);
  EXPECT_EQ(log_.shutDowns(), 1);
}

TEST_F(Module, MayNotBeUnloadedWhileTheServerIsLocked) {
  EXPECT_EQ(factory()->LockServer(1), 0);
  EXPECT_EQ(factory()->LockServer(1), 0);
  EXPECT_EQ(factory()->LockServer(0), 0);
  EXPECT_EQ(DllCanUnloadNow(), 1);
  EXPECT_EQ(factory()->LockServer(0), 0);
  EXPECT_EQ(DllCanUnloadNow(), 0);
}

TEST_F(Module, MayNotBeUnloadedWhereTheLoggerCannotBeShutDown) {
  logInfo("a logger");
  log_.failShutDown();
  EXPECT_EQ(DllCanUnloadNow(), 1);
  EXPECT_EQ(log_.shutDowns(), 0);
  log_.clear();
}

TEST_F(Module, RegistrationDoesNothing) {
  EXPECT_EQ(DllRegisterServer(), 0);
  expectSection("DllRegisterServer");
  log_.clear();
  EXPECT_EQ(DllUnregisterServer(), 0);
  expectSection("DllUnregisterServer");
  EXPECT_EQ(log_.shutDowns(), 0);
}

TEST_F(Module, SecondInitialisationWritesNoSecondBanner) {
  const auto made = driver();
  EXPECT_EQ(made->OnInitialize(nullptr), 0);  // writes it, if no test before has
  log_.clear();
  EXPECT_EQ(made->OnInitialize(nullptr), 0);
  expectSection("CMyDriver::OnInitialize");
}

TEST_F(Module, DeinitialisationIsASectionAndNothingElse) {
  const auto made = driver();
  log_.clear();
  made->OnDeinitialize(nullptr);
  expectSection("CMyDriver::OnDeinitialize");
}

TEST_F(Module, DeviceIsAddedWithTheResultOfItsCreation) {
  const auto made = driver();
  log_.clear();
  EXPECT_EQ(made->OnDeviceAdd(nullptr, nullptr), framework::hresult(0x80070057));
  EXPECT_EQ(log_.records().front().text, "Start section:CMyDriver::OnDeviceAdd");
  EXPECT_EQ(log_.count("[CI]Invalid IWDFDriver"), 1u);
}

TEST_F(Module, DeviceAndQueueKeepTheModuleLoaded) {
  test::FakeWinsock winsock;
  const platform::Ports system = platform::ports();
  platform::Ports ports = system;
  ports.winsock = &winsock;
  platform::replacePorts(ports);
  {
    const auto wdf = ComPtr<test::FakeWdfDriver>::adopt(new test::FakeWdfDriver);
    test::FakeWdfDeviceInitialize init;
    ASSERT_EQ(driver()->OnDeviceAdd(wdf.get(), &init), 0);
    EXPECT_EQ(DllCanUnloadNow(), 1);
    ComPtr<framework::IPnpCallbackHardware> hardware;
    wdf->device->deviceCallback->QueryInterface(framework::IPnpCallbackHardware::iid,
                                                hardware.putVoid());
    ASSERT_EQ(hardware->OnPrepareHardware(wdf->device.get()), 0);
    ASSERT_EQ(hardware->OnReleaseHardware(wdf->device.get()), 0);
    hardware.reset();
    wdf->device->letGo();
    EXPECT_EQ(DllCanUnloadNow(), 0);
  }
  EXPECT_EQ(test::livingObjects(), 0);
  platform::replacePorts(system);
}

TEST(StartBanner, IsThreeLinesThatPassEveryThreshold) {
  LogCapture log;
  StartBanner banner;
  banner.writeOnce();
  const std::string rule(74, '-');
  const std::string build =
      std::string("Vornhalt Virtual Smartcard Reader driver build ") + buildVersion();
  EXPECT_THAT(log.records(),
              ElementsAre(LogRecord{0, 0, rule, false}, LogRecord{0, 0, build, false},
                          LogRecord{0, 0, rule, false}));
}

TEST(StartBanner, IsWrittenOnce) {
  LogCapture log;
  StartBanner banner;
  banner.writeOnce();
  banner.writeOnce();
  EXPECT_EQ(log.records().size(), 3u);
}

}  // namespace
}  // namespace zelta
