// Waiting on the system's wall clock.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <thread>

#include "platform/sync/clock.h"

namespace zelta::platform {
namespace {

constexpr std::int64_t kTenYears = std::int64_t{10} * 365 * 24 * 3'600'000;  // milliseconds

std::int64_t inMilliseconds(std::int64_t milliseconds) {
  return systemWallClock().now() + milliseconds * kClockUnitsPerMillisecond;
}

TEST(WallClockWait, EndsWithFalseAtTheDeadline) {
  Mutex mutex;
  ConditionVariable condition;
  MutexLock lock(mutex);
  const std::int64_t deadline = inMilliseconds(20);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(systemWallClock().waitUntil(condition, lock, deadline, [] { return false; }));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(19));
}

TEST(WallClockWait, DeadlineThatHasPassedDoesNotWait) {
  Mutex mutex;
  ConditionVariable condition;
  MutexLock lock(mutex);
  EXPECT_FALSE(systemWallClock().waitUntil(condition, lock, 0, [] { return false; }));
  EXPECT_TRUE(systemWallClock().waitUntil(condition, lock, 0, [] { return true; }));
}

TEST(WallClockWait, SignalEndsItWithTrue) {
  // The second deadline is the latest that a rotation time gives.
  for (const std::int64_t ahead : {kTenYears, 2'147'483'647 * std::int64_t{60'000}}) {
    Mutex mutex;
    ConditionVariable condition;
    bool done = false;
    std::thread signaller;
    {
      MutexLock lock(mutex);
      signaller = std::thread([&] {
        {
          MutexLock other(mutex);
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
