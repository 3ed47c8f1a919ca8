// The system's events, counted, with calls that fail on command. The handles are the system's own.
// Any thread may call anything.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/sync/event.h"
#include "platform/sync/sync.h"

namespace zelta::test {

class FakeEvents final : public platform::EventApi {
 public:
  enum class Call { kCreate, kSet, kWaitAny, kClose };

  static constexpr std::size_t kForever = static_cast<std::size_t>(-1);

  // After `skip` more calls of the kind, the next `times` fail and leave `code` as the last error.
  // A failing set or wait does nothing else. `times` 0 ends that.
  void fail(Call call, std::uint32_t code, std::size_t times = kForever, std::size_t skip = 0);

  // Calls made so far, failed ones included; a wait counts when it begins.
  std::size_t calls(Call call);
  // Blocks until so many calls of the kind have been made.
  void waitForCalls(Call call, std::size_t count);
  // Created and not closed.
  std::size_t open();

  platform::EventHandle create() override;
  bool set(platform::EventHandle event) override;
  std::uint32_t waitAny(const platform::EventHandle* events, std::size_t count) override;
  void close(platform::EventHandle event) override;

 private:
  struct CallState {
    std::size_t count = 0;
    std::size_t skip = 0;
    std::size_t failures = 0;  // still to come
    std::uint32_t code = 0;
  };
  static constexpr std::size_t kCalls = 4;

  CallState& stateOf(Call call) ZELTA_REQUIRES(mutex_);
  // Counts the call; false, with the last error set, if it is to fail.
  bool enter(Call call) ZELTA_EXCLUDES(mutex_);

  platform::Mutex mutex_;
  platform::ConditionVariable called_;
  std::array<CallState, kCalls> calls_ ZELTA_GUARDED_BY(mutex_);
  std::size_t open_ ZELTA_GUARDED_BY(mutex_) = 0;
};

}  // namespace zelta::test
