#include "agent_link/pipe_calls.h"

#include "platform/ports.h"

namespace zelta {

PipeCalls::Series PipeCalls::beginSeries() {
  const platform::MutexLock lock(mutex_);
  return current_;
}

bool PipeCalls::enter(Series series) {
  const platform::MutexLock lock(mutex_);
  if (closed_ || stopped_ || series != current_) return false;
  ++inFlight_;
  return true;
}

void PipeCalls::leave(Series series) {
  const std::uint32_t error = platform::lastError();  // the call's own, for its caller
  {
    const platform::MutexLock lock(mutex_);
    if (series == current_) {
      --inFlight_;
    } else if (--endedInFlight_ == 0) {
      idle_.notifyAll();
    }
  }
  platform::setLastError(error);
}

void PipeCalls::endCurrent() {
  ++current_;
  endedInFlight_ += inFlight_;
  inFlight_ = 0;
}

bool PipeCalls::endSeries(platform::PipeHandleValue pipe) {
  platform::MutexLock lock(mutex_);
  endCurrent();
  return cancelUntilIdle(pipe, lock);
}

bool PipeCalls::close(platform::PipeHandleValue pipe) {
  platform::MutexLock lock(mutex_);
  closed_ = true;
  endCurrent();
  return cancelUntilIdle(pipe, lock);
}

void PipeCalls::reopen() {
  const platform::MutexLock lock(mutex_);
  closed_ = false;
}

void PipeCalls::stop() {
  const platform::MutexLock lock(mutex_);
  stopped_ = true;
  endCurrent();
}

bool PipeCalls::cancelUntilIdle(platform::PipeHandleValue pipe, platform::MutexLock& lock) {
  platform::PipeApi& pipes = *platform::ports().pipes;
  lock.unlock();
  const bool cancelled = pipes.cancel(pipe);
  const std::uint32_t error = platform::lastError();
  lock.lock();
  const auto idle = [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return endedInFlight_ == 0; };
  while (!idle_.waitFor(lock, kCancelRetry, idle)) {
    lock.unlock();
    pipes.cancel(pipe);
    lock.lock();
  }
  platform::setLastError(error);
  return cancelled;
}

}  // namespace zelta
