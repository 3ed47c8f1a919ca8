#include "diagnostics/traced_lock.h"

#include <atomic>
#include <cstdint>

#include "diagnostics/log.h"
#include "platform/sync/clock.h"

namespace zelta {

namespace {

// Only the release of the most recently contended lock is reported.
std::atomic<const platform::CriticalSection*> lastContendedLock{nullptr};

}  // namespace

TracedLock::TracedLock(const char* function, platform::CriticalSection& lock, int line,
                       const void* object) noexcept
    : function_(function), line_(line), object_(object), lock_(&lock) {
  const std::uint32_t start = platform::tickCount();
  if (lock.tryEnter()) return;
  logDebug("Locking: Function:%s, Line:%i, Object:%p, Lock:%p", function_.c_str(), line_, object_,
           static_cast<const void*>(lock_));
  lastContendedLock.store(lock_, std::memory_order_relaxed);
  lock.enter();
  logDebug("Elapsed:%i ms", static_cast<int>(platform::tickCount() - start));
}

TracedLock::~TracedLock() {
  if (lastContendedLock.load(std::memory_order_relaxed) == lock_) {
    logDebug("Unlocking: Function:%s, Line:%i, Object:%p, Lock:%p", function_.c_str(), line_,
             object_, static_cast<const void*>(lock_));
    lastContendedLock.store(nullptr, std::memory_order_relaxed);
  }
  lock_->leave();
}

}  // namespace zelta
