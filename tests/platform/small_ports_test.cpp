// The ports that have little to them.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/process/error.h"
#include "platform/process/ports.h"
#include "platform/sync/clock.h"
#include "platform/sync/critical_section.h"
#include "tests/platform/system_milliseconds.h"

namespace zelta::platform {
namespace {

TEST(LastError, StaysUntilItIsSetAgain) {
  setLastError(error::kBadPipe);
  EXPECT_EQ(lastError(), error::kBadPipe);
  setLastError(error::kSuccess);
  EXPECT_EQ(lastError(), error::kSuccess);
}

TEST(LastError, IsEachThreadsOwnAndBeginsAtSuccess) {
  std::atomic<bool> mineIsSet{false};
  std::atomic<bool> theirsIsSet{false};
  std::thread other([&] {
    EXPECT_EQ(lastError(), error::kSuccess);
    while (!mineIsSet) std::this_thread::yield();
    setLastError(error::kNoData);
    theirsIsSet = true;
  });
  // Calls of the system, among them those to do with threads, may set it also where they succeed.
  setLastError(error::kBadPipe);
  mineIsSet = true;
  while (!theirsIsSet) {
  }
  EXPECT_EQ(lastError(), error::kBadPipe);
  other.join();
}

TEST(WallClock, CountsHundredNanosecondsSince1970) {
  using Units = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;
  const auto reference = [] {
    return std::chrono::floor<Units>(std::chrono::system_clock::now().time_since_epoch()).count();
  };
  const std::int64_t before = reference();
  const std::int64_t now = systemWallClock().now();
  const std::int64_t after = reference();
  EXPECT_LE(before, now);
  EXPECT_LE(now, after);
}

TEST(TickCount, CountsMillisecondsAndWrapsAt32Bits) {
  const auto reference = [] { return static_cast<std::uint32_t>(test::systemMilliseconds()); };
  const std::uint32_t before = reference();
  const std::uint32_t now = tickCount();
  const std::uint32_t after = reference();
  EXPECT_LE(now - before, after - before);  // also across the wrap
}

// The analysis knows no nesting, which is what is tested here.
void enter(CriticalSection& section) ZELTA_NO_THREAD_SAFETY_ANALYSIS { section.enter(); }
bool tryEnter(CriticalSection& section) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
  return section.tryEnter();
}
void leave(CriticalSection& section) ZELTA_NO_THREAD_SAFETY_ANALYSIS { section.leave(); }

bool anotherThreadGetsIn(CriticalSection& section) {
  bool entered = false;
  std::thread([&] {
    entered = tryEnter(section);
    if (entered) leave(section);
  }).join();
  return entered;
}

TEST(CriticalSection, TheHolderEntersAgain) {
  CriticalSection section;
  enter(section);
  enter(section);
  ASSERT_TRUE(tryEnter(section));
  for (int i = 0; i < 3; ++i) leave(section);
}

TEST(CriticalSection, AnotherThreadGetsInOnceEveryEntryIsLeft) {
  CriticalSection section;
  EXPECT_TRUE(anotherThreadGetsIn(section));
  enter(section);
  enter(section);
  EXPECT_FALSE(anotherThreadGetsIn(section));
  leave(section);
  EXPECT_FALSE(anotherThreadGetsIn(section));
  leave(section);
  EXPECT_TRUE(anotherThreadGetsIn(section));
}

TEST(CriticalSection, KeepsThreadsApart) {
  CriticalSection section;
  int count = 0;
  const auto work = [&] {
    for (int i = 0; i < 10000; ++i) {
      section.enter();
      ++count;
      section.leave();
    }
  };
  std::thread first(work);
  std::thread second(work);
  first.join();
  second.join();
  EXPECT_EQ(count, 20000);
}

TEST(Ports, AreTheSystemsUnlessReplaced) {
  EXPECT_EQ(ports().pipes, &systemPipes());
  EXPECT_EQ(ports().events, &systemEvents());
  EXPECT_EQ(ports().registry, &systemRegistry());
  EXPECT_EQ(ports().folders, &systemFolders());
  EXPECT_EQ(ports().clock, &systemWallClock());
  EXPECT_EQ(ports().winsock, &systemWinsock());

  Ports others = ports();
  others.winsock = nullptr;
  const Ports before = replacePorts(others);
  EXPECT_EQ(before.winsock, &systemWinsock());
  EXPECT_EQ(ports().winsock, nullptr);
  EXPECT_EQ(ports().events, &systemEvents());
  EXPECT_EQ(replacePorts(before).winsock, nullptr);
  EXPECT_EQ(ports().winsock, &systemWinsock());
}

}  // namespace
}  // namespace zelta::platform
