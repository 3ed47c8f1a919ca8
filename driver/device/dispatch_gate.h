// Keeps I/O controls and the readers' lifetime apart: readers are made and destroyed only while
// the gate is closed and nobody is inside.
//
// The framework stops I/O before it takes a device down, but not before it asks whether the device
// may be stopped or removed, and the driver takes its readers down at that question already.
//
// Threads: any may pass; one at a time opens, closes and waits. The waiting thread must hold no
// lock that a thread inside may need.
#pragma once

#include <cstddef>

#include "platform/sync/sync.h"

namespace zelta {

class DispatchGate {
 public:
  // One thread's pass; the thread is inside until it is destroyed.
  class Pass {
   public:
    explicit Pass(DispatchGate& gate) : gate_(gate), admitted_(gate.enter()) {}
    ~Pass() {
      if (admitted_) gate_.leave();
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

    // False if the gate was closed.
    bool admitted() const { return admitted_; }

   private:
    DispatchGate& gate_;
    const bool admitted_;
  };

  void open() ZELTA_EXCLUDES(mutex_) {
    const platform::MutexLock lock(mutex_);
    open_ = true;
  }

  // Admits no further threads; those inside stay.
  void close() ZELTA_EXCLUDES(mutex_) {
    const platform::MutexLock lock(mutex_);
    open_ = false;
  }

  // Blocks until no thread is inside. The gate must be closed. An I/O control is inside until its
  // exchange with the agent ends, so end the exchanges between closing and waiting.
  void awaitEmpty() ZELTA_EXCLUDES(mutex_) {
    platform::MutexLock lock(mutex_);
    left_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return inside_ == 0; });
  }

 private:
  bool enter() ZELTA_EXCLUDES(mutex_) {
    const platform::MutexLock lock(mutex_);
    if (open_) ++inside_;
    return open_;
  }

  void leave() ZELTA_EXCLUDES(mutex_) {
    const platform::MutexLock lock(mutex_);
    --inside_;
    if (inside_ == 0) left_.notifyAll();
  }

  platform::Mutex mutex_;
  platform::ConditionVariable left_;
  bool open_ ZELTA_GUARDED_BY(mutex_) = false;
  std::size_t inside_ ZELTA_GUARDED_BY(mutex_) = 0;
};

}  // namespace zelta
