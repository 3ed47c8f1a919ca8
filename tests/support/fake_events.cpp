#include "tests/support/fake_events.h"

#include "platform/process/error.h"

namespace zelta::test {

using platform::MutexLock;

void FakeEvents::fail(Call call, std::uint32_t code, std::size_t times, std::size_t skip) {
  MutexLock lock(mutex_);
  CallState& state = stateOf(call);
  state.code = code;
  state.failures = times;
  state.skip = skip;
}

std::size_t FakeEvents::calls(Call call) {
  MutexLock lock(mutex_);
  return stateOf(call).count;
}

void FakeEvents::waitForCalls(Call call, std::size_t count) {
  MutexLock lock(mutex_);
  called_.wait(lock,
               [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return stateOf(call).count >= count; });
}

std::size_t FakeEvents::open() {
  MutexLock lock(mutex_);
  return open_;
}

platform::EventHandle FakeEvents::create() {
  if (!enter(Call::kCreate)) return nullptr;
  const platform::EventHandle event = platform::systemEvents().create();
  if (event != nullptr) {
    MutexLock lock(mutex_);
    ++open_;
  }
  return event;
}

bool FakeEvents::set(platform::EventHandle event) {
  return enter(Call::kSet) && platform::systemEvents().set(event);
}

std::uint32_t FakeEvents::waitAny(const platform::EventHandle* events, std::size_t count) {
  if (!enter(Call::kWaitAny)) return platform::kWaitFailed;
  return platform::systemEvents().waitAny(events, count);
}

void FakeEvents::close(platform::EventHandle event) {
  enter(Call::kClose);
  if (event == nullptr) return;
  {
    MutexLock lock(mutex_);
    --open_;
  }
  platform::systemEvents().close(event);
}

FakeEvents::CallState& FakeEvents::stateOf(Call call) {
  return calls_[static_cast<std::size_t>(call)];
}

bool FakeEvents::enter(Call call) {
  std::uint32_t code = 0;
  {
    MutexLock lock(mutex_);
    CallState& state = stateOf(call);
    ++state.count;
    called_.notifyAll();
    if (state.skip > 0) {
      --state.skip;
      return true;
    }
    if (state.failures == 0) return true;
    if (state.failures != kForever) --state.failures;
    code = state.code;
  }
  platform::setLastError(code);
  return false;
}

}  // namespace zelta::test
