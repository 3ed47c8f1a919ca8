// The system's events, counted, with calls that fail on command. The handles are the system's own.
// Any thread may call anything.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/sync/event.h"
#include "tests/support/failing_calls.h"

namespace zelta::test {

enum class EventCall { kCreate, kSet, kWaitAny, kClose };

// A failing call leaves its code as the last error; a failing set or wait does nothing else.
class FakeEvents final : public platform::EventApi, public FailingCalls<EventCall, 4> {
 public:
  using Call = EventCall;

  // Created and not closed.
  std::size_t open();

  platform::EventHandle create() override;
  bool set(platform::EventHandle event) override;
  std::uint32_t waitAny(const platform::EventHandle* events, std::size_t count) override;
  void close(platform::EventHandle event) override;

 private:
  // Counts the call; false, with the last error set, if it is to fail.
  bool enter(Call call) ZELTA_EXCLUDES(mutex_);

  std::size_t open_ ZELTA_GUARDED_BY(mutex_) = 0;
};

}  // namespace zelta::test
