// Counts a double's calls by kind and makes some of them fail. Any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/sync/sync.h"

namespace zelta::test {

template <typename Call, std::size_t kKinds>
class FailingCalls {
 public:
  static constexpr std::size_t kForever = static_cast<std::size_t>(-1);

  // After `skip` more calls of the kind, the next `times` fail with `code`. `times` 0 ends that.
  void fail(Call call, std::uint32_t code, std::size_t times = kForever, std::size_t skip = 0) {
    const platform::MutexLock lock(mutex_);
    State& state = stateOf(call);
    state.code = code;
    state.failures = times;
    state.skip = skip;
  }
  // Calls made so far, failed ones included; a call counts when it begins.
  std::size_t calls(Call call) {
    const platform::MutexLock lock(mutex_);
    return stateOf(call).count;
  }
  // Blocks until `count` calls of the kind have been made, and their work under the mutex is done.
  void waitForCalls(Call call, std::size_t count) {
    platform::MutexLock lock(mutex_);
    called_.wait(lock,
                 [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return stateOf(call).count >= count; });
  }

 protected:
  ~FailingCalls() = default;

  // Counts the call; returns the error that it must fail with, or 0.
  std::uint32_t count(Call call) ZELTA_REQUIRES(mutex_) {
    State& state = stateOf(call);
    ++state.count;
    called_.notifyAll();
    if (state.skip > 0) {
      --state.skip;
      return 0;
    }
    if (state.failures == 0) return 0;
    if (state.failures != kForever) --state.failures;
    return state.code;
  }

  platform::Mutex mutex_;

 private:
  struct State {
    std::size_t count = 0;
    std::size_t skip = 0;
    std::size_t failures = 0;  // still to come
    std::uint32_t code = 0;
  };

  State& stateOf(Call call) ZELTA_REQUIRES(mutex_) {
    return states_[static_cast<std::size_t>(call)];
  }

  platform::ConditionVariable called_;
  std::array<State, kKinds> states_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::test
