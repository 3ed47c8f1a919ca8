#include "tests/doubles/clock/simulated_clock.h"

#include <algorithm>

namespace zelta::test {

using platform::MutexLock;

bool SimulatedClock::waitUntil(platform::ConditionVariable& condition, MutexLock& lock,
                               std::int64_t deadline, const std::function<bool()>& predicate) {
  Waiter waiter{&condition, &lock.mutex(), deadline};
  // The waiter's mutex is released while the list is changed: `set` takes it under its own.
  lock.unlock();
  {
    const MutexLock own(mutex_);
    waiters_.push_back(&waiter);
    ++begun_;
  }
  changed_.notifyAll();
  lock.lock();
  condition.wait(lock, [&] { return predicate() || now() >= deadline; });
  lock.unlock();
  {
    const MutexLock own(mutex_);
    waiters_.erase(std::find(waiters_.begin(), waiters_.end(), &waiter));
  }
  changed_.notifyAll();
  lock.lock();
  return predicate();
}

void SimulatedClock::set(std::int64_t time) {
  const MutexLock own(mutex_);
  now_ = time;
  for (Waiter* waiter : waiters_) {
    // A waiter that looked at the time before is now waiting for the signal.
    { const MutexLock lock(*waiter->mutex); }
    waiter->condition->notifyAll();
  }
}

void SimulatedClock::advance(std::int64_t milliseconds) {
  set(now() + milliseconds * platform::kClockUnitsPerMillisecond);
}

void SimulatedClock::awaitDeadline(std::int64_t deadline) {
  MutexLock own(mutex_);
  changed_.wait(own, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return std::any_of(waiters_.begin(), waiters_.end(),
                       [&](const Waiter* waiter) { return waiter->deadline == deadline; });
  });
}

std::size_t SimulatedClock::waits() {
  const MutexLock own(mutex_);
  return begun_;
}

}  // namespace zelta::test
