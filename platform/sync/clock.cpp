#include "platform/sync/clock.h"

#if defined(_WIN32)
#include <windows.h>
#endif

#include <algorithm>
#include <chrono>
#include <ratio>

#include "platform/process/never_destroyed.h"

namespace zelta::platform {

namespace {

using HundredNanoseconds = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;

// The system does not tell when the wall clock is set, so a wait checks it again after this long.
constexpr HundredNanoseconds kLongestWait = std::chrono::minutes(1);

HundredNanoseconds steadyNow() {
  return std::chrono::floor<HundredNanoseconds>(
      std::chrono::steady_clock::now().time_since_epoch());
}

class SystemWallClock final : public WallClock {
 public:
  std::int64_t now() override {
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::floor<HundredNanoseconds>(sinceEpoch).count();
  }

  bool waitUntil(ConditionVariable& condition, MutexLock& lock, std::int64_t deadline,
                 const std::function<bool()>& predicate) override {
    const HundredNanoseconds steadyEnd = steadyNow() + HundredNanoseconds(deadline - now());
    while (!predicate()) {
      const HundredNanoseconds left =
          std::min(steadyEnd - steadyNow(), HundredNanoseconds(deadline - now()));
      if (left <= HundredNanoseconds::zero()) return false;
      condition.waitFor(lock, std::min(left, kLongestWait), predicate);
    }
    return true;
  }
};

}  // namespace

WallClock& systemWallClock() {
  static NeverDestroyed<SystemWallClock> clock;
  return clock.get();
}

std::uint32_t tickCount() {
#if defined(_WIN32)
  return GetTickCount();
#else
  const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint32_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(sinceStart).count());
#endif
}

}  // namespace zelta::platform
