// A scoped lock of a critical section that reports contention to the log, and only that.
#pragma once

#include <string>

#include "platform/critical_section.h"

namespace zelta {

class ZELTA_SCOPED_CAPABILITY TracedLock {
 public:
  // `function` and `line` say where the lock is taken; `object` is printed and may be null.
  TracedLock(const char* function, platform::CriticalSection& lock, int line,
             const void* object = nullptr) ZELTA_ACQUIRE(lock);
  ~TracedLock() ZELTA_RELEASE();
  TracedLock(const TracedLock&) = delete;
  TracedLock& operator=(const TracedLock&) = delete;

 private:
  std::string function_;
  int line_;
  const void* object_;
  platform::CriticalSection* lock_;
};

}  // namespace zelta
