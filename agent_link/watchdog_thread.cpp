#include "agent_link/watchdog_thread.h"

#include <utility>

#include "diagnostics/log.h"

namespace zelta {

WatchdogThread::~WatchdogThread() {
  std::thread thread;
  {
    const platform::MutexLock lock(mutex_);
    stop_ = true;
    thread = std::move(thread_);
  }
  stopped_.notifyAll();
  if (thread.joinable()) thread.join();
}

void WatchdogThread::arm(const std::function<void()>& callback) {
  const platform::MutexLock lock(mutex_);
  if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
  callback_ = &callback;
  deadline_ = Clock::now() + limit_;
  expired_ = false;
}

bool WatchdogThread::expired() {
  const platform::MutexLock lock(mutex_);
  return expired_;
}

void WatchdogThread::disarm() {
  const platform::MutexLock lock(mutex_);
  callback_ = nullptr;
}

void WatchdogThread::run() {
  platform::MutexLock lock(mutex_);
  while (!stop_) {
    const Clock::time_point now = Clock::now();
    if (callback_ != nullptr && now >= deadline_) {
      logError(kNoError, "Query timeout");
      expired_ = true;
      (*std::exchange(callback_, nullptr))();
      continue;
    }
    const Clock::duration sleep = callback_ != nullptr ? deadline_ - now : Clock::duration(limit_);
    stopped_.waitFor(lock, sleep, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return stop_; });
  }
}

}  // namespace zelta
