#include "host/io_operation.h"

#include <algorithm>

#include "host/io_engine.h"

namespace zelta::host {

using platform::MutexLock;

std::chrono::milliseconds boundedWait(std::chrono::milliseconds limit) {
  constexpr std::chrono::hours kYear(24 * 365);
  return std::min<std::chrono::milliseconds>(limit, kYear);
}

bool Operation::wait(std::chrono::milliseconds limit) {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, boundedWait(limit),
                          [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return completed_; });
}

bool Operation::completed() const {
  const MutexLock lock(mutex_);
  return completed_;
}

void Operation::cancel() {
  if (const std::shared_ptr<IoEngine> engine = engine_.lock()) engine->cancel(*this);
}

void Operation::finish(framework::HRESULT status, std::size_t information,
                       ConstBytes output) noexcept {
  result_.information = information;
  result_.status = withoutMemoryErrors([&] {
    result_.output.assign(output.data, output.data + output.size);
    return status;
  });
  if (completion_) completion_(result_);
  completion_ = nullptr;
  const MutexLock lock(mutex_);
  completed_ = true;
  changed_.notifyAll();
}

}  // namespace zelta::host
