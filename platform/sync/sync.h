// Mutex, scoped lock and condition variable that clang's thread-safety analysis understands.
// They are the standard library's own underneath. All are non-recursive.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

#if defined(__clang__)
#define ZELTA_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZELTA_THREAD_ANNOTATION(x)
#endif

#define ZELTA_CAPABILITY(x) ZELTA_THREAD_ANNOTATION(capability(x))
#define ZELTA_SCOPED_CAPABILITY ZELTA_THREAD_ANNOTATION(scoped_lockable)
#define ZELTA_GUARDED_BY(x) ZELTA_THREAD_ANNOTATION(guarded_by(x))
#define ZELTA_REQUIRES(...) ZELTA_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZELTA_EXCLUDES(...) ZELTA_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ZELTA_ACQUIRE(...) ZELTA_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZELTA_TRY_ACQUIRE(...) ZELTA_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ZELTA_RELEASE(...) ZELTA_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZELTA_ACQUIRED_BEFORE(...) ZELTA_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ZELTA_ACQUIRED_AFTER(...) ZELTA_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define ZELTA_RETURN_CAPABILITY(x) ZELTA_THREAD_ANNOTATION(lock_returned(x))
#define ZELTA_ASSERT_CAPABILITY(x) ZELTA_THREAD_ANNOTATION(assert_capability(x))
#define ZELTA_NO_THREAD_SAFETY_ANALYSIS ZELTA_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace zelta::platform {

class ZELTA_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ZELTA_ACQUIRE() { mutex_.lock(); }
  void unlock() ZELTA_RELEASE() { mutex_.unlock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

// Holds a mutex for a scope; may be released early and taken again. A lock is const unless it waits
// or unlocks.
class ZELTA_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ZELTA_ACQUIRE(mutex) : mutex_(mutex), lock_(mutex.mutex_) {}
  ~MutexLock() ZELTA_RELEASE() {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void lock() ZELTA_ACQUIRE() { lock_.lock(); }
  void unlock() ZELTA_RELEASE() { lock_.unlock(); }
  // For signalling a condition that is waited on with this lock.
  Mutex& mutex() const { return mutex_; }

 private:
  friend class ConditionVariable;
  Mutex& mutex_;
  std::unique_lock<std::mutex> lock_;
};

// Predicates run with the lock held. Clang cannot see that, so those that read guarded members
// carry ZELTA_NO_THREAD_SAFETY_ANALYSIS.
class ConditionVariable {
 public:
  void notifyAll() { condition_.notify_all(); }

  template <typename Predicate>
  void wait(MutexLock& lock, Predicate predicate) {
    condition_.wait(lock.lock_, std::move(predicate));
  }
  // What the predicate returns at the end; false means that the time ran out.
  template <typename Rep, typename Period, typename Predicate>
  bool waitFor(MutexLock& lock, std::chrono::duration<Rep, Period> limit, Predicate predicate) {
    return condition_.wait_for(lock.lock_, limit, std::move(predicate));
  }

 private:
  std::condition_variable condition_;
};

}  // namespace zelta::platform
