// The doubles do what the tests that use them rely on.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "platform/process/error.h"
#include "tests/doubles/registry/fake_registry.h"
#include "tests/support/fake_events.h"
#include "tests/support/fake_folders.h"

namespace zelta::test {
namespace {

namespace error = platform::error;
using platform::EventHandle;
using platform::RegistryKey;

TEST(FakeRegistry, Call_FailsAsOftenAsToldAndIsCounted) {
  using Call = FakeRegistry::Call;
  FakeRegistry registry;
  registry.setDword(u"K", u"x", 3);
  const EventHandle event = platform::systemEvents().create();
  std::uint32_t value = 0;
  std::uint32_t type = 0;
  std::uint32_t size = sizeof(value);
  RegistryKey key = nullptr;
  const std::pair<Call, std::function<std::uint32_t()>> calls[] = {
      {Call::kGetDword, [&] { return registry.getDword(u"K", u"x", &value); }},
      {Call::kOpenKey, [&] { return registry.openKey(u"K", &key); }},
      {Call::kQueryValue, [&] { return registry.queryValue(key, u"x", &type, &value, &size); }},
      {Call::kNotifyChange, [&] { return registry.notifyChange(key, event); }},
  };
  for (const auto& [kind, call] : calls) {
    registry.fail(kind, error::kAccessDenied, 2);
    EXPECT_EQ(call(), error::kAccessDenied);
    EXPECT_EQ(call(), error::kAccessDenied);
    EXPECT_EQ(call(), error::kSuccess);
    registry.waitForCalls(kind, 3);
    EXPECT_EQ(registry.calls(kind), 3U);
  }
  EXPECT_EQ(registry.openKeys(), 1U);
  EXPECT_EQ(registry.pendingWatches(), 1U);
  registry.closeKey(key);
  EXPECT_EQ(registry.openKeys(), 0U);
  EXPECT_EQ(registry.pendingWatches(), 0U);
  platform::systemEvents().close(event);
}

TEST(FakeEvents, Call_FailsAfterThoseThatAreToSucceed) {
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

TEST(FakeFolders, Path_IsWhatTheTestHasSetOrTheCallFails) {
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

}  // namespace
}  // namespace zelta::test
