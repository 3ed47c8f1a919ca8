// The module's entry points and the driver object, as the host uses them.
#include "driver/module/module.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "contract/class_ids.h"
#include "contract/status.h"
#include "diagnostics/log_output.h"
#include "driver/request/module_reference.h"
#include "tests/doubles/framework/fake_framework.h"
#include "tests/doubles/logging/log_capture.h"
#include "tests/doubles/ports/fake_winsock.h"

namespace zelta {
namespace {

using framework::ComPtr;
using framework::HRESULT;
using framework::IClassFactory;
using framework::IDriverEntry;
using module::canUnload;
using module::getClassObject;
using test::LogCapture;
using testing::StartsWith;

class Module : public testing::Test {
 protected:
  ~Module() override { EXPECT_EQ(canUnload(), framework::kOk) << "an object is left"; }

  static ComPtr<IClassFactory> factory() {
    ComPtr<IClassFactory> found;
    EXPECT_EQ(getClassObject(kDriverClassId, IClassFactory::iid, found.putVoid()), framework::kOk);
    return found;
  }

  static ComPtr<IDriverEntry> driver() {
    ComPtr<IDriverEntry> made;
    EXPECT_EQ(factory()->CreateInstance(nullptr, IDriverEntry::iid, made.putVoid()),
              framework::kOk);
    return made;
  }

  // Expects that the log since the last call is only this section.
  void expectSection(const std::string& name) {
    const auto records = log_.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0], test::debug("Start section:" + name));
    EXPECT_THAT(records[1].text, StartsWith("End section:" + name + " elapsed:"));
    log_.clear();
  }

  LogCapture log_;
};

TEST_F(Module, DriversClass_HasAFactoryWithNoOtherInterface) {
  EXPECT_TRUE(factory());
  expectSection("DllGetClassObject");
  void* out = this;
  EXPECT_EQ(getClassObject(kDriverClassId, IDriverEntry::iid, &out), framework::kNoInterface);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(getClassObject(kDriverClassId, IClassFactory::iid, nullptr), framework::kPointer);
}

TEST_F(Module, AnyOtherClass_IsNotAvailable) {
  framework::CLSID other = kDriverClassId;
  other.data1 ^= 1;
  void* out = &other;
  EXPECT_EQ(getClassObject(other, IClassFactory::iid, &out), framework::kClassNotAvailable);
  EXPECT_EQ(out, nullptr);
  expectSection("DllGetClassObject");
}

TEST_F(Module, Factory_MakesTheDriverWithItsOnlyInterface) {
  const auto made = driver();
  ASSERT_TRUE(made);
  EXPECT_EQ(made->AddRef(), 2u);
  made->Release();
  ComPtr<framework::IUnknown> found;
  EXPECT_EQ(made->QueryInterface(framework::IUnknown::iid, found.putVoid()), framework::kOk);
  for (const framework::IID* iid : {&framework::IPnpCallback::iid, &IClassFactory::iid}) {
    EXPECT_EQ(made->QueryInterface(*iid, found.putVoid()), framework::kNoInterface);
  }
  EXPECT_EQ(log_.count("Start section:CMyDriver::CMyDriver"), 1u);
}

TEST_F(Module, FactorysBadArguments_AreRefused) {
  const auto made = factory();
  void* out = this;
  EXPECT_EQ(made->CreateInstance(made.get(), IDriverEntry::iid, &out), framework::kNoAggregation);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(made->CreateInstance(nullptr, IDriverEntry::iid, nullptr), framework::kPointer);
  out = this;
  EXPECT_EQ(made->CreateInstance(nullptr, IClassFactory::iid, &out), framework::kNoInterface);
  EXPECT_EQ(out, nullptr);
}

TEST_F(Module, WithoutObjects_MayBeUnloadedAndShutsTheLoggerDownLast) {
  logInfo("a logger");
  EXPECT_EQ(canUnload(), framework::kOk);
  const auto records = log_.records();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[1], test::debug("Start section:DllCanUnloadNow"));
  EXPECT_THAT(records[2].text, StartsWith("End section:DllCanUnloadNow elapsed:"));
  EXPECT_EQ(log_.shutDowns(), 1);
  EXPECT_EQ(log_.recordsAtShutDown(), 3u) << "the section's end line is written before";
}

TEST_F(Module, SecondUnloadQuery_WaitsUntilTheFirstHasShutTheLoggerDown) {
  logInfo("a logger");
  std::future<HRESULT> second;
  log_.setShutDownHook([&second] {
    second = std::async(std::launch::async, canUnload);
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  });
  EXPECT_EQ(canUnload(), framework::kOk);
  EXPECT_EQ(second.get(), framework::kOk);
  EXPECT_EQ(log_.shutDowns(), 1);
}

TEST_F(Module, WithoutALogger_AnswersAndLogsNothing) {
  EXPECT_EQ(canUnload(), framework::kOk);
  const auto held = factory();
  log_.clear();
  EXPECT_EQ(canUnload(), framework::kFalse);
  EXPECT_TRUE(log_.records().empty());
  EXPECT_EQ(log_.shutDowns(), 0);
}

TEST_F(Module, WhileAnObjectLivesOrTheServerIsLocked_StaysLoaded) {
  {
    const auto held = factory();
    EXPECT_EQ(canUnload(), framework::kFalse);
  }
  {
    const auto held = driver();
    EXPECT_EQ(canUnload(), framework::kFalse);
  }
  for (const framework::BOOL lock : {1, 1, 0}) EXPECT_EQ(factory()->LockServer(lock), 0);
  const int before = log_.shutDowns();
  EXPECT_EQ(canUnload(), framework::kFalse);
  EXPECT_EQ(log_.shutDowns(), before);
  EXPECT_EQ(factory()->LockServer(0), framework::kOk);
  EXPECT_EQ(canUnload(), framework::kOk);
}

TEST_F(Module, LastObjectOrLock_ShutsTheLoggerDownUnasked) {
  auto held = factory();
  held->LockServer(1);
  auto made = driver();
  made->OnInitialize(nullptr);
  made->OnDeinitialize(nullptr);
  made.reset();
  held->LockServer(0);
  EXPECT_EQ(log_.shutDowns(), 0) << "the factory is left";
  held.reset();
  EXPECT_EQ(log_.shutDowns(), 1);
  EXPECT_EQ(log_.recordsAtShutDown(), log_.records().size());
  EXPECT_FALSE(hasLogger());
}

TEST_F(Module, LastObject_KeepsTheModuleLoadedUntilTheLoggerIsShutDown) {
  std::vector<bool> used;
  log_.setShutDownHook([&used] { used.push_back(ModuleReference::any()); });
  EXPECT_TRUE(factory());
  log_.setShutDownHook(nullptr);
  EXPECT_EQ(used, std::vector<bool>{true});
}

TEST_F(Module, CallThatGivesNoObject_ShutsTheLoggerDownAfterItsSection) {
  void* out = nullptr;
  EXPECT_EQ(getClassObject(kDriverClassId, IDriverEntry::iid, &out), framework::kNoInterface);
  EXPECT_EQ(log_.shutDowns(), 1);
  EXPECT_EQ(log_.recordsAtShutDown(), log_.records().size());
}

TEST_F(Module, LoggerThatCannotBeShutDown_LetsTheLastObjectGo) {
  log_.failShutDown();
  EXPECT_TRUE(factory());
  EXPECT_FALSE(ModuleReference::any());
  log_.clear();
}

TEST_F(Module, LoggerThatCannotBeShutDown_KeepsTheModuleLoaded) {
  logInfo("a logger");
  log_.failShutDown();
  EXPECT_EQ(canUnload(), framework::kFalse);
  EXPECT_EQ(log_.shutDowns(), 0);
  log_.clear();
}

TEST_F(Module, Registration_IsASectionAndNothingElse) {
  EXPECT_EQ(module::registerServer(), framework::kOk);
  expectSection("DllRegisterServer");
  EXPECT_EQ(module::unregisterServer(), framework::kOk);
  expectSection("DllUnregisterServer");
  EXPECT_EQ(log_.shutDowns(), 0);
}

TEST_F(Module, SecondInitialisation_WritesNoSecondBanner) {
  const auto made = driver();
  EXPECT_EQ(made->OnInitialize(nullptr), framework::kOk);  // writes it, if no test before has
  log_.clear();
  EXPECT_EQ(made->OnInitialize(nullptr), framework::kOk);
  expectSection("CMyDriver::OnInitialize");
  made->OnDeinitialize(nullptr);
  expectSection("CMyDriver::OnDeinitialize");
}

TEST_F(Module, DeviceThatCannotBeCreated_IsAddedWithTheResultOfItsCreation) {
  const auto made = driver();
  log_.clear();
  EXPECT_EQ(made->OnDeviceAdd(nullptr, nullptr), status::kInvalidArgument);
  EXPECT_EQ(log_.records().front().text, "Start section:CMyDriver::OnDeviceAdd");
  EXPECT_EQ(log_.count("[CI]Invalid IWDFDriver"), 1u);
}

TEST_F(Module, DeviceAndQueue_KeepTheModuleLoaded) {
  const test::FakeWinsock winsock;
  test::FakeFramework framework(driver());
  ASSERT_EQ(framework.addDevice(), framework::kOk);
  ASSERT_EQ(framework.prepareHardware(), framework::kOk);
  ASSERT_EQ(framework.releaseHardware(), framework::kOk);
  auto queue = framework.queue().callback;
  framework.removeDevice();
  framework.deinitialize();
  EXPECT_EQ(canUnload(), framework::kFalse);
  queue.reset();  // and with it the device
  EXPECT_EQ(canUnload(), framework::kOk);
  EXPECT_THAT(framework.complaints(), testing::IsEmpty());
}

}  // namespace
}  // namespace zelta
