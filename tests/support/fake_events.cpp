#include "tests/support/fake_events.h"

#include "platform/process/error.h"

namespace zelta::test {

using platform::MutexLock;

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

bool FakeEvents::enter(Call call) {
  std::uint32_t code = 0;
  {
    const MutexLock lock(mutex_);
    code = count(call);
  }
  if (code == 0) return true;
  platform::setLastError(code);
  return false;
}

}  // namespace zelta::test
