// The module's exported functions, the class factory and the driver object.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/doubles/framework/recording_framework.h"
#include "tests/module/module_world.h"
#include "tests/support/repetitions.h"

namespace zelta::test {
namespace {

using framework::ComPtr;

constexpr framework::CLSID kOtherClass = {
    0x01234567, 0x89AB, 0xCDEF, {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};

class ExportsTest : public ::testing::Test {
 protected:
  ModuleWorld world_;
  DriverExports exports_;
};

TEST_F(ExportsTest, VersionIsThatOfTheFramework) {
  ASSERT_NE(exports_.version(), nullptr);
  EXPECT_EQ(exports_.version()[0], 1u);
  EXPECT_EQ(exports_.version()[1], 11u);
}

TEST_F(ExportsTest, UnknownClassIsNotAvailable) {
  void* out = this;
  EXPECT_EQ(exports_.getClassObject(kOtherClass, framework::IClassFactory::iid, &out),
            framework::kClassNotAvailable);
  EXPECT_EQ(out, nullptr);
}

TEST_F(ExportsTest, UnknownInterfaceOfTheFactoryIsRefused) {
  void* out = this;
  EXPECT_EQ(exports_.getClassObject(kDriverClass, framework::IDriverEntry::iid, &out),
            framework::kNoInterface);
  EXPECT_EQ(out, nullptr);
}

TEST_F(ExportsTest, FactoryDoesNotAggregate) {
  const auto factory = exports_.factory();
  void* out = nullptr;
  EXPECT_EQ(factory->CreateInstance(factory.get(), framework::IDriverEntry::iid, &out),
            framework::kNoAggregation);
}

TEST_F(ExportsTest, DriverObjectIsADriverEntryAndNothingElse) {
  const auto driver = exports_.driver();
  ASSERT_TRUE(driver);
  ComPtr<framework::IUnknown> unknown;
  EXPECT_EQ(driver->QueryInterface(framework::IUnknown::iid, unknown.putVoid()), framework::kOk);
  void* out = nullptr;
  for (const framework::IID* iid :
       {&framework::IPnpCallback::iid, &framework::IPnpCallbackHardware::iid,
        &framework::IClassFactory::iid, &framework::IObjectCleanup::iid}) {
    EXPECT_EQ(driver->QueryInterface(*iid, &out), framework::kNoInterface);
  }
}

TEST_F(ExportsTest, RegistrationSucceedsAndDoesNothing) {
  EXPECT_EQ(exports_.registerServer(), framework::kOk);
  EXPECT_EQ(exports_.unregisterServer(), framework::kOk);
}

TEST_F(ExportsTest, RegistrationsShareOneLogFile) {
  for (int round = 0; round < 4; ++round) {
    EXPECT_EQ(exports_.registerServer(), framework::kOk);
    EXPECT_EQ(exports_.unregisterServer(), framework::kOk);
  }
  EXPECT_EQ(world_.logFiles(), 1u);
  EXPECT_EQ(world_.countInLog("Start section:DllUnregisterServer"), 4u);
}

TEST_F(ExportsTest, AnswerThatAnUnusedModuleMayGoBeginsNoLogFile) {
  for (int round = 0; round < 7; ++round) EXPECT_EQ(exports_.canUnload(), framework::kOk);
  EXPECT_EQ(world_.logFiles(), 0u);
  exports_.factory();
  for (int round = 0; round < 7; ++round) EXPECT_EQ(exports_.canUnload(), framework::kOk);
  EXPECT_EQ(world_.logFiles(), 1u);
  EXPECT_EQ(world_.countInLog("Start section:DllCanUnloadNow"), 1u);
}

TEST_F(ExportsTest, ModuleMayBeAskedWhetherItMayGoWhileItIsUsed) {
  std::atomic<int> using_{3};
  std::vector<std::thread> threads;
  for (int user = 0; user < 3; ++user) {
    threads.emplace_back([&] {
      for (int round = 0; round < repetitions(100); ++round) EXPECT_TRUE(exports_.driver());
      --using_;
    });
  }
  threads.emplace_back([&] {
    while (using_ > 0) exports_.canUnload();
  });
  while (using_ > 0) exports_.canUnload();
  for (std::thread& thread : threads) thread.join();
}

TEST_F(ExportsTest, ModuleStaysWhileAnObjectLives) {
  EXPECT_EQ(exports_.canUnload(), framework::kOk);
  auto factory = exports_.factory();
  EXPECT_EQ(exports_.canUnload(), framework::kFalse);
  ComPtr<framework::IDriverEntry> driver;
  factory->CreateInstance(nullptr, framework::IDriverEntry::iid, driver.putVoid());
  factory.reset();
  EXPECT_EQ(exports_.canUnload(), framework::kFalse);
  driver.reset();
  EXPECT_EQ(exports_.canUnload(), framework::kOk);
}

TEST_F(ExportsTest, ModuleStaysWhileTheServerIsLocked) {
  auto factory = exports_.factory();
  EXPECT_EQ(factory->LockServer(1), framework::kOk);
  factory.reset();
  EXPECT_EQ(exports_.canUnload(), framework::kFalse);
  factory = exports_.factory();
  EXPECT_EQ(factory->LockServer(0), framework::kOk);
  factory.reset();
  EXPECT_EQ(exports_.canUnload(), framework::kOk);
}

TEST_F(ExportsTest, ModuleStaysWhileTheDeviceLives) {
  RecordingFramework framework(exports_.driver());
  ASSERT_TRUE(framework.bringUp());
  EXPECT_EQ(exports_.canUnload(), framework::kFalse);
  framework.takeDown();
  EXPECT_EQ(exports_.canUnload(), framework::kOk);
}

}  // namespace
}  // namespace zelta::test
