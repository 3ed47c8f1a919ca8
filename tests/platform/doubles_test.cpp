// The doubles do what the tests that use them rely on.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "platform/process/error.h"
#include "tests/doubles/registry/fake_registry.h"
#include "tests/support/fake_events.h"
#include "tests/support/fake_folders.h"
#include "tests/support/fake_winsock.h"

namespace zelta::test {
namespace {

namespace error = platform::error;
using platform::EventHandle;
using platform::RegistryKey;

TEST(FakeRegistry, CallsFailOnCommandAsOftenAsAskedFor) {
  FakeRegistry registry;
  registry.setDword(u"K", u"x", 3);
  std::uint32_t value = 0;
  registry.fail(FakeRegistry::Call::kGetDword, error::kAccessDenied, 2);
  EXPECT_EQ(registry.getDword(u"K", u"x", &value), error::kAccessDenied);
  EXPECT_EQ(registry.getDword(u"K", u"x", &value), error::kAccessDenied);
  EXPECT_EQ(registry.getDword(u"K", u"x", &value), error::kSuccess);

  RegistryKey key = nullptr;
  registry.fail(FakeRegistry::Call::kOpenKey, error::kAccessDenied);
  EXPECT_EQ(registry.openKey(u"K", &key), error::kAccessDenied);
  EXPECT_EQ(key, nullptr);
  EXPECT_EQ(registry.openKey(u"K", &key), error::kAccessDenied);
  registry.fail(FakeRegistry::Call::kOpenKey, error::kSuccess);
  EXPECT_EQ(registry.openKey(u"K", &key), error::kSuccess);
  EXPECT_EQ(registry.openKeys(), 1U);

  std::uint32_t type = 0;
  std::uint32_t size = sizeof(value);
  registry.fail(FakeRegistry::Call::kQueryValue, error::kMoreData, 1);
  EXPECT_EQ(registry.queryValue(key, u"x", &type, &value, &size), error::kMoreData);
  EXPECT_EQ(registry.queryValue(key, u"x", &type, &value, &size), error::kSuccess);

  registry.fail(FakeRegistry::Call::kNotifyChange, error::kInvalidHandle, 1);
  const EventHandle event = platform::systemEvents().create();
  EXPECT_EQ(registry.notifyChange(key, event), error::kInvalidHandle);
  EXPECT_EQ(registry.pendingWatches(), 0U);
  EXPECT_EQ(registry.notifyChange(key, event), error::kSuccess);
  EXPECT_EQ(registry.pendingWatches(), 1U);
  registry.closeKey(key);
  EXPECT_EQ(registry.openKeys(), 0U);
  EXPECT_EQ(registry.pendingWatches(), 0U);
  EXPECT_EQ(registry.calls(FakeRegistry::Call::kOpenKey), 3U);
  EXPECT_EQ(registry.calls(FakeRegistry::Call::kCloseKey), 1U);
  platform::systemEvents().close(event);
}

TEST(FakeRegistry, CallsCanBeWaitedFor) {
  FakeRegistry registry;
  std::thread caller([&] {
    std::uint32_t value = 0;
    for (int i = 0; i < 3; ++i) registry.getDword(u"K", u"x", &value);
  });
  registry.waitForCalls(FakeRegistry::Call::kGetDword, 3);
  caller.join();
  EXPECT_EQ(registry.calls(FakeRegistry::Call::kGetDword), 3U);
}

TEST(FakeRegistry, WatchesAreSignalledThroughTheEventsItIsGiven) {
  FakeEvents events;
  FakeRegistry registry(events);
  registry.createKey(u"K");
  RegistryKey key = nullptr;
  ASSERT_EQ(registry.openKey(u"K", &key), error::kSuccess);
  const EventHandle event = events.create();
  ASSERT_EQ(registry.notifyChange(key, event), error::kSuccess);
  registry.setText(u"K", u"x", u"60");
  EXPECT_EQ(events.calls(FakeEvents::Call::kSet), 1U);
  EXPECT_EQ(events.waitAny(&event, 1), 0U);
  registry.closeKey(key);
  events.close(event);
}

TEST(FakeEvents, CallsFailOnCommandAfterThoseThatAreToSucceed) {
  FakeEvents events;
  events.fail(FakeEvents::Call::kCreate, error::kNotEnoughMemory, 1, 1);
  const EventHandle event = events.create();
  ASSERT_NE(event, nullptr);
  platform::setLastError(0);
  EXPECT_EQ(events.create(), nullptr);
  EXPECT_EQ(platform::lastError(), error::kNotEnoughMemory);
  EXPECT_EQ(events.open(), 1U);

  events.fail(FakeEvents::Call::kSet, error::kAccessDenied, 1);
  EXPECT_FALSE(events.set(event));
  EXPECT_EQ(platform::lastError(), error::kAccessDenied);
  EXPECT_TRUE(events.set(event));

  events.fail(FakeEvents::Call::kWaitAny, error::kInvalidParameter);
  EXPECT_EQ(events.waitAny(&event, 1), platform::kWaitFailed);
  EXPECT_EQ(platform::lastError(), error::kInvalidParameter);
  EXPECT_EQ(events.waitAny(&event, 1), platform::kWaitFailed);
  events.fail(FakeEvents::Call::kWaitAny, 0, 0);
  EXPECT_EQ(events.waitAny(&event, 1), 0U) << "the failed waits have not taken the signal";

  events.close(event);
  EXPECT_EQ(events.open(), 0U);
  EXPECT_EQ(events.calls(FakeEvents::Call::kCreate), 2U);
  EXPECT_EQ(events.calls(FakeEvents::Call::kWaitAny), 3U);
}

TEST(FakeEvents, AWaitCountsWhenItBegins) {
  FakeEvents events;
  const EventHandle event = events.create();
  std::thread waiter([&] { EXPECT_EQ(events.waitAny(&event, 1), 0U); });
  events.waitForCalls(FakeEvents::Call::kWaitAny, 1);
  events.set(event);
  waiter.join();
  events.close(event);
}

TEST(FakeFolders, GiveWhatTheTestHasSetAndElseFail) {
  FakeFolders folders;
  char16_t* path = nullptr;
  char16_t buffer[8] = {};
  EXPECT_LT(folders.programData(&path), 0);
  EXPECT_EQ(path, nullptr);
  EXPECT_EQ(folders.tempPath(buffer, 8), 0U);
  EXPECT_EQ(folders.currentDirectory(buffer, 8), 0U);

  folders.programDataPath = u"C:\\ProgramData";
  folders.temporaryPath = u"T:\\";
  folders.currentPath = u"C:\\Windows";
  EXPECT_EQ(folders.programData(&path), 0);
  EXPECT_EQ(std::u16string(path), u"C:\\ProgramData");
  EXPECT_EQ(folders.unfreed(), 1U);
  folders.taskMemFree(path);
  EXPECT_EQ(folders.unfreed(), 0U);
  EXPECT_EQ(folders.tempPath(buffer, 8), 3U);
  EXPECT_EQ(std::u16string(buffer), u"T:\\");
  EXPECT_EQ(folders.currentDirectory(buffer, 8), 11U) << "the size needed";
  EXPECT_EQ(folders.lastCapacity(), 8U);
  EXPECT_EQ(folders.programDataCalls(), 2U);
  EXPECT_EQ(folders.tempPathCalls(), 2U);
  EXPECT_EQ(folders.currentDirectoryCalls(), 2U);
}

TEST(FakeWinsock, CountsAndFailsOnCommand) {
  FakeWinsock winsock;
  EXPECT_EQ(winsock.startup(0x0202), 0);
  winsock.startupResult = 10091;
  winsock.cleanupResult = -1;
  EXPECT_EQ(winsock.startup(0x0101), 10091);
  EXPECT_EQ(winsock.cleanup(), -1);
  EXPECT_EQ(winsock.startups(), 2);
  EXPECT_EQ(winsock.cleanups(), 1);
  EXPECT_EQ(winsock.version(), 0x0101);
}

}  // namespace
}  // namespace zelta::test
