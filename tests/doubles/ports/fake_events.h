// The system's events, counted, with calls that fail on command. The handles are the system's own.
// Any thread may call anything.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/process/error.h"
#include "platform/sync/event.h"
#include "tests/support/failing_calls.h"

namespace zelta::test {

enum class EventCall { kCreate, kSet, kWaitAny, kClose };

// A failing call leaves its code as the last error; a failing set or wait does nothing else.
class FakeEvents final : public platform::EventApi, public FailingCalls<EventCall, 4> {
 public:
  using Call = EventCall;

  // The number of events created and not closed.
  std::size_t open() {
    const platform::MutexLock lock(mutex_);
    return open_;
  }

  platform::EventHandle create() override {
    if (!enter(Call::kCreate)) return nullptr;
    const platform::EventHandle event = platform::systemEvents().create();
    const platform::MutexLock lock(mutex_);
    if (event != nullptr) ++open_;
    return event;
  }
  bool set(platform::EventHandle event) override {
    return enter(Call::kSet) && platform::systemEvents().set(event);
  }
  std::uint32_t waitAny(const platform::EventHandle* events, std::size_t count) override {
    if (!enter(Call::kWaitAny)) return platform::kWaitFailed;
    return platform::systemEvents().waitAny(events, count);
  }
  void close(platform::EventHandle event) override {
    enter(Call::kClose);
    if (event == nullptr) return;
    {
      const platform::MutexLock lock(mutex_);
      --open_;
    }
    platform::systemEvents().close(event);
  }

 private:
  // Counts the call; false, with the last error set, if it must fail.
  bool enter(Call call) ZELTA_EXCLUDES(mutex_) {
    std::uint32_t code = 0;
    {
      const platform::MutexLock lock(mutex_);
      code = count(call);
    }
    if (code != 0) platform::setLastError(code);
    return code == 0;
  }

  std::size_t open_ ZELTA_GUARDED_BY(mutex_) = 0;
};

}  // namespace zelta::test
