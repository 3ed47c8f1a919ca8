#include "agent_link/pipe_calls.h"

#include "platform/ports.h"

namespace zelta {

PipeCalls::Series PipeCalls::beginSeries() {
  const platform::MutexLock lock(mutex_);
  return {current_, true};
}

PipeCalls::Series PipeCalls::beginConnect() {
  const platform::MutexLock lock(mutex_);
  return {current_, false};
}

std::uint32_t PipeCalls::enter(const Series& series) {
  using namespace platform::error;
  const platform::MutexLock lock(mutex_);
  if (closed_ || stopped_ || series.number != current_) return kOperationAborted;
  if (series.exchange && exchangesEnded_) return kOperationAborted;
  if (series.exchange && !clientLetIn_) return kPipeListening;
  ++inFlight_;
  if (series.exchange) ++exchangesInFlight_;
  return kSuccess;
}

void PipeCalls::leave(const Series& series) {
  const std::uint32_t error = platform::lastError();  // the call's own, for its caller
  {
    const platform::MutexLock lock(mutex_);
    --(series.number == current_ ? inFlight_ : endedInFlight_);
    if (series.exchange) --exchangesInFlight_;
    if (endedInFlight_ == 0 || exchangesInFlight_ == 0) idle_.notifyAll();
  }
  platform::setLastError(error);
}

void PipeCalls::letIn() {
  const platform::MutexLock lock(mutex_);
  clientLetIn_ = true;
}

void PipeCalls::endCurrent() {
  ++current_;
  endedInFlight_ += inFlight_;
  inFlight_ = 0;
}

bool PipeCalls::endSeries(platform::PipeHandleValue pipe) {
  {
    const platform::MutexLock lock(mutex_);
    endCurrent();
  }
  return cancelUntilIdle(pipe);
}

bool PipeCalls::close(platform::PipeHandleValue pipe) {
  {
    const platform::MutexLock lock(mutex_);
    closed_ = true;
    clientLetIn_ = false;
    endCurrent();
  }
  return cancelUntilIdle(pipe);
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

void PipeCalls::endExchanges(const PipeHandle& pipe) {
  platform::MutexLock lock(mutex_);
  exchangesEnded_ = true;
  while (exchangesInFlight_ > 0) {
    lock.unlock();
    // Read here: whoever is in flight has seen this pipe, or none.
    platform::ports().pipes->cancel(pipe.get());
    lock.lock();
    if (awaitNoExchange(lock)) return;
  }
}

bool PipeCalls::awaitNoExchange(platform::MutexLock& lock) {
  return idle_.waitFor(lock, kCancelRetry, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return exchangesInFlight_ == 0;
  });
}

bool PipeCalls::cancelUntilIdle(platform::PipeHandleValue pipe) {
  platform::PipeApi& pipes = *platform::ports().pipes;
  const bool cancelled = pipes.cancel(pipe);
  const std::uint32_t error = platform::lastError();
  while (!awaitIdle()) pipes.cancel(pipe);
  platform::setLastError(error);
  return cancelled;
}

bool PipeCalls::awaitIdle() {
  platform::MutexLock lock(mutex_);
  return idle_.waitFor(lock, kCancelRetry,
                       [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return endedInFlight_ == 0; });
}

}  // namespace zelta
