// A scoped lock of a critical section that reports contention to the log. If the lock is free,
// nothing is written. The driver takes the device lock only through it.
//
// Threads: the thread that holds the lock may take it again. Which lock was contended last is one
// value for the process, shared without synchronisation: a release may go unreported, or another
// holder of the same critical section may report it. Never throws.
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
