// Lets threads in until it is closed; can then wait for those inside.
#pragma once

#include <cstddef>

#include "platform/sync/sync.h"

namespace zelta::host {

class CallbackGate {
 public:
  // One thread's pass; the thread is inside, if the gate was open, until it leaves.
  class Pass {
   public:
    Pass() = default;
    explicit Pass(CallbackGate& gate) { enter(gate); }
    ~Pass() { leave(); }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

    void enter(CallbackGate& gate) {
      if (gate.admit()) gate_ = &gate;
    }
    void leave() {
      if (gate_ != nullptr) gate_->release();
      gate_ = nullptr;
    }
    explicit operator bool() const { return gate_ != nullptr; }

   private:
    CallbackGate* gate_ = nullptr;  // not owned; null: not inside
  };

  // Admits no further threads; those inside stay.
  void close() ZELTA_EXCLUDES(mutex_) {
    const platform::MutexLock lock(mutex_);
    open_ = false;
  }
  // Blocks until all threads have left. The gate must be closed, and the calling thread not inside.
  void awaitEmpty() ZELTA_EXCLUDES(mutex_) {
    platform::MutexLock lock(mutex_);
    empty_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return inside_ == 0; });
  }

 private:
  bool admit() ZELTA_EXCLUDES(mutex_) {
    const platform::MutexLock lock(mutex_);
    if (open_) ++inside_;
    return open_;
  }
  void release() ZELTA_EXCLUDES(mutex_) {
    const platform::MutexLock lock(mutex_);
    if (--inside_ == 0 && !open_) empty_.notifyAll();
  }

  platform::Mutex mutex_;
  platform::ConditionVariable empty_;
  bool open_ ZELTA_GUARDED_BY(mutex_) = true;
  std::size_t inside_ ZELTA_GUARDED_BY(mutex_) = 0;
};

}  // namespace zelta::host
