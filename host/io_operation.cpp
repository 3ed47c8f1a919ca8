#include "host/io_operation.h"

#include <algorithm>

#include "host/io_engine.h"

namespace zelta::host {

using platform::MutexLock;

namespace {

// Keeps "no limit" inside what the clocks can add up.
std::chrono::milliseconds bounded(std::chrono::milliseconds limit) {
  constexpr std::chrono::hours kYear(24 * 365);
  return std::min<std::chrono::milliseconds>(limit, kYear);
}

}  // namespace

bool Operation::wait(std::chrono::milliseconds limit) {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, bounded(limit),
                          [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return completed_; });
}

bool Operation::waitDispatched(std::chrono::milliseconds limit) {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, bounded(limit),
                          [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return dispatched_; });
}

bool Operation::completed() const {
  MutexLock lock(mutex_);
  return completed_;
}

void Operation::cancel() {
  if (const std::shared_ptr<IoEngine> engine = engine_.lock()) engine->cancel(*this);
}

void Operation::markDispatched() {
  MutexLock lock(mutex_);
  dispatched_ = true;
  changed_.notifyAll();
}

void Operation::finish(IoResult result) noexcept {
  result_ = std::move(result);
  if (completion_) completion_(result_);
  completion_ = nullptr;
  MutexLock lock(mutex_);
  completed_ = true;
  changed_.notifyAll();
}

}  // namespace zelta::host
