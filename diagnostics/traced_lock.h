// A scoped lock of a critical section that reports contention to the log, and only that: where
// the lock is free, nothing is written. The only way in which the driver takes the device lock.
//
// Threads: the lock is its holder thread's and may be nested by it. Which lock was contended last
// is one value for the process, shared without synchronisation of its own: a release may go
// unreported, or be reported by another lock's holder of the same critical section.
// Never throws.
#pragma once

#include "diagnostics/scope_name.h"
#include "platform/sync/critical_section.h"

namespace zelta {

class ZELTA_SCOPED_CAPABILITY TracedLock {
 public:
  // `function` and `line` say where the lock is taken; `object` is printed and may be null.
  TracedLock(const char* function, platform::CriticalSection& lock, int line,
             const void* object = nullptr) noexcept ZELTA_ACQUIRE(lock);
  ~TracedLock() ZELTA_RELEASE();
  TracedLock(const TracedLock&) = delete;
  TracedLock& operator=(const TracedLock&) = delete;

 private:
  ScopeName function_;
  int line_;
  const void* object_;
  platform::CriticalSection* lock_;  // not owned
};

}  // namespace zelta
