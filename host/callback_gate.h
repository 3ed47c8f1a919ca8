// Lets threads into the driver's callbacks until it is closed, and then waits for those inside.
#pragma once

#include <cstddef>

#include "platform/sync.h"

namespace zelta::host {

class CallbackGate {
 public:
  // Inside for a scope, where the gate is open.
  class Pass {
   public:
    explicit Pass(CallbackGate& gate) : gate_(gate), inside_(gate.enter()) {}
    ~Pass() {
      if (inside_) gate_.leave();
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

    explicit operator bool() const { return inside_; }

   private:
    CallbackGate& gate_;
    const bool inside_;
  };

  // Nobody enters from now on; returns when everybody has left. Not for a thread that is inside.
  void close() ZELTA_EXCLUDES(mutex_) {
    platform::MutexLock lock(mutex_);
    open_ = false;
    empty_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return inside_ == 0; });
  }

 private:
  bool enter() ZELTA_EXCLUDES(mutex_) {
    platform::MutexLock lock(mutex_);
    if (open_) ++inside_;
    return open_;
  }
  void leave() ZELTA_EXCLUDES(mutex_) {
    platform::MutexLock lock(mutex_);
    if (--inside_ == 0) empty_.notifyAll();
  }

  platform::Mutex mutex_;
  platform::ConditionVariable empty_;
  bool open_ ZELTA_GUARDED_BY(mutex_) = true;
  std::size_t inside_ ZELTA_GUARDED_BY(mutex_) = 0;
};

}  // namespace zelta::host
