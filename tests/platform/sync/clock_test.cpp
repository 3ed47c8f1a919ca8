// The system's wall clock, waiting on it, and the tick counter.
#if defined(_WIN32)
#include <windows.h>
#endif
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <thread>

#include "platform/sync/clock.h"

namespace zelta::platform {
namespace {

constexpr std::int64_t kTenYears = std::int64_t{10} * 365 * 24 * 3'600'000;  // milliseconds

std::int64_t inMilliseconds(std::int64_t milliseconds) {
  return systemWallClock().now() + milliseconds * kClockUnitsPerMillisecond;
}

TEST(WallClock, Now_IsInHundredNanosecondsSince1970) {
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

TEST(TickCount, Count_IsInMillisecondsAndWrapsAt32Bits) {
  // The system's steady clock.
  const auto reference = [] {
#if defined(_WIN32)
    return static_cast<std::uint32_t>(GetTickCount64());
#else
    const auto time = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint32_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
#endif
  };
  const std::uint32_t before = reference();
  const std::uint32_t now = tickCount();
  const std::uint32_t after = reference();
  EXPECT_LE(now - before, after - before);  // also across the wrap
}

TEST(WallClockWait, Deadline_EndsItWithWhatThePredicateGives) {
  Mutex mutex;
  ConditionVariable condition;
  MutexLock lock(mutex);
  const std::int64_t deadline = inMilliseconds(20);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(systemWallClock().waitUntil(condition, lock, deadline, [] { return false; }));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(19));
  // A deadline that has passed is not waited for.
  EXPECT_FALSE(systemWallClock().waitUntil(condition, lock, 0, [] { return false; }));
  EXPECT_TRUE(systemWallClock().waitUntil(condition, lock, 0, [] { return true; }));
}

TEST(WallClockWait, Signal_EndsItWithTrue) {
  // The second deadline is the latest possible rotation time.
  for (const std::int64_t ahead : {kTenYears, 2'147'483'647 * std::int64_t{60'000}}) {
    Mutex mutex;
    ConditionVariable condition;
    bool done = false;
    std::thread signaller;
    {
      MutexLock lock(mutex);
      signaller = std::thread([&] {
        {
          const MutexLock other(mutex);
          done = true;
        }
        condition.notifyAll();
      });
      EXPECT_TRUE(systemWallClock().waitUntil(condition, lock, inMilliseconds(ahead),
                                              [&] { return done; }));
    }
    signaller.join();
  }
}

}  // namespace
}  // namespace zelta::platform
