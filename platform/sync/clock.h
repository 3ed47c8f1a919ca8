// Wall clock and tick counter.
#pragma once

#include <cstdint>
#include <functional>

#include "platform/sync/sync.h"

namespace zelta::platform {

inline constexpr std::int64_t kClockUnitsPerMillisecond = 10'000;

// Any thread may call.
class WallClock {
 public:
  virtual ~WallClock() = default;
  // 100-nanosecond units since 1970-01-01T00:00:00Z. May jump in either direction.
  virtual std::int64_t now() = 0;
  // Waits on `condition` until `predicate` (run with the lock held) is true or the clock reaches
  // `deadline` (as `now` counts); the wait lasts no longer than the deadline was away when it
  // began, however the clock is set meanwhile. Returns what the predicate returns at the
  // end; false means that the time ran out. A signal of `condition` must be preceded by taking the
  // lock's mutex.
  virtual bool waitUntil(ConditionVariable& condition, MutexLock& lock, std::int64_t deadline,
                         const std::function<bool()>& predicate) = 0;
};

WallClock& systemWallClock();

// Milliseconds of a steady counter; wraps at 2^32.
std::uint32_t tickCount();

}  // namespace zelta::platform
