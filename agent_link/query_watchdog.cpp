#include "agent_link/query_watchdog.h"

#include <stdexcept>
#include <utility>

#include "diagnostics/log.h"

namespace zelta {

QueryWatchdog::QueryWatchdog(std::function<void()> callback, std::chrono::milliseconds time)
    : callback_(std::move(callback)), time_(time) {
  if (!callback_) throw std::runtime_error("Callback is null");
  thread_ = std::thread([this] { run(); });
}

QueryWatchdog::~QueryWatchdog() {
  {
    const platform::MutexLock lock(mutex_);
    armed_ = false;
  }
  condition_.notifyAll();
  thread_.join();
}

bool QueryWatchdog::timedOut() {
  const platform::MutexLock lock(mutex_);
  return timedOut_;
}

void QueryWatchdog::run() {
  platform::MutexLock lock(mutex_);
  const auto stopped = [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return !armed_; };
  if (condition_.waitFor(lock, time_, stopped)) return;
  logError(kNoError, "Query timeout");
  timedOut_ = true;
  callback_();
}

}  // namespace zelta
