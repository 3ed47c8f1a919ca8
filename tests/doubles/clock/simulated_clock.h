// A wall clock that moves only when the test moves it.
//
// Any thread may call anything. Waits end when the clock is moved to their deadline or beyond.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "platform/sync/clock.h"
#include "platform/sync/sync.h"
#include "tests/support/scoped_port.h"

namespace zelta::test {

// 5 March 2024, 14:07:09.042 UTC.
inline constexpr std::int64_t kMarchTime = 17'096'476'290'420'000;

class SimulatedClock final : public platform::WallClock {
 public:
  explicit SimulatedClock(std::int64_t time = kMarchTime) : now_(time) {}

  std::int64_t now() override { return now_.load(); }
  bool waitUntil(platform::ConditionVariable& condition, platform::MutexLock& lock,
                 std::int64_t deadline,
                 const std::function<bool()>& predicate) override ZELTA_NO_THREAD_SAFETY_ANALYSIS;

  // Moves the clock, also backwards, and wakes the threads that wait for that time.
  void set(std::int64_t time);
  void advance(std::int64_t milliseconds);

  // Blocks until a wait with this deadline is under way.
  void awaitDeadline(std::int64_t deadline);
  // The number of waits with a deadline that have begun.
  std::size_t waits();

 private:
  struct Waiter {
    platform::ConditionVariable* condition;
    platform::Mutex* mutex;
    std::int64_t deadline;
  };

  std::atomic<std::int64_t> now_;
  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  std::vector<Waiter*> waiters_ ZELTA_GUARDED_BY(mutex_);
  std::size_t begun_ ZELTA_GUARDED_BY(mutex_) = 0;
};

// Puts a clock in place of the system's for a scope.
struct ScopedClock : ScopedPort {
  explicit ScopedClock(platform::WallClock& clock) : ScopedPort(&platform::Ports::clock, clock) {}
};

}  // namespace zelta::test
