// Keeps I/O controls and the readers' lifetime apart: readers are made and destroyed only while
// the gate is closed and nobody is inside.
//
// The framework stops I/O before it takes a device down, but not before it asks whether the device
// may be stopped or removed, and the driver takes its readers down at that question already.
//
// Threads: any may pass; one at a time opens and closes. The gate's mutex is held for moments only
// and nothing else is locked under it; closing waits with no other lock held.
#pragma once

#include <cstddef>

#include "platform/sync.h"

namespace zelta {

class DispatchGate {
 public:
  // One thread's way through; inside until it is destroyed.
  class Pass {
   public:
    explicit Pass(DispatchGate& gate) : gate_(gate), admitted_(gate.enter()) {}
    ~Pass() {
      if (admitted_) gate_.leave();
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

    // False where the gate was closed.
    bool admitted() const { return admitted_; }

   private:
    DispatchGate& gate_;
    const bool admitted_;
  };

  void open() {
    const platform::MutexLock lock(mutex_);
    open_ = true;
  }

  // Admits nobody from now on and returns when the last one inside has left. An I/O control is
  // inside for as long as the agent may take to answer it.
  void closeAndWait() {
    platform::MutexLock lock(mutex_);
    open_ = false;
    left_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return inside_ == 0; });
  }

 private:
  bool enter() {
    const platform::MutexLock lock(mutex_);
    if (open_) ++inside_;
    return open_;
  }

  void leave() {
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
