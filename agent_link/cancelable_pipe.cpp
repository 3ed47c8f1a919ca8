#include "agent_link/cancelable_pipe.h"

#include <utility>

#include "diagnostics/log.h"
#include "platform/process/error.h"
#include "platform/process/ports.h"

namespace zelta {

namespace {

namespace error = platform::error;

std::uint32_t errorOf(bool succeeded) {
  return succeeded ? error::kSuccess : platform::lastError();
}

}  // namespace

CancelablePipe::CancelablePipe(const char* label, std::string name)
    : label_(label), name_(std::move(name)), handle_(platform::invalidPipe()) {}

CancelablePipe::Epoch CancelablePipe::epoch() {
  const platform::MutexLock lock(mutex_);
  return epoch_;
}

std::uint32_t CancelablePipe::enter(Use use, Epoch epoch) {
  const platform::MutexLock lock(mutex_);
  if (closed_ || stopped_ || epoch != epoch_) return error::kOperationAborted;
  if (use == Use::kExchange) {
    if (exchangesEnded_) return error::kOperationAborted;
    if (!clientAccepted_) return error::kPipeListening;
    if (clientDropped_) return error::kBrokenPipe;
    ++exchangesInFlight_;
  }
  ++inFlight_;
  return error::kSuccess;
}

void CancelablePipe::leave(Use use, Epoch epoch) {
  const std::uint32_t error = platform::lastError();  // the call's own, for its caller
  {
    const platform::MutexLock lock(mutex_);
    --(epoch == epoch_ ? inFlight_ : endedInFlight_);
    if (use == Use::kExchange) --exchangesInFlight_;
    if (idleWaits_ > 0) idle_.notifyAll();
  }
  platform::setLastError(error);
}

std::uint32_t CancelablePipe::connect() {
  if (!dropLeftClient()) return error::kOperationAborted;
  const Epoch current = epoch();
  const std::uint32_t refusal = enter(Use::kConnect, current);
  if (refusal != error::kSuccess) return refusal;
  std::uint32_t code = error::kSuccess;
  {
    const Leave leave{*this, Use::kConnect, current};
    code = errorOf(platform::ports().pipes->connect(handle()));
  }
  if (code == error::kSuccess || code == error::kPipeConnected || code == error::kIoPending) {
    const platform::MutexLock lock(mutex_);
    clientAccepted_ = true;
    clientDropped_ = false;
  }
  return code;
}

bool CancelablePipe::dropLeftClient() {
  {
    platform::MutexLock lock(mutex_);
    if (!clientLeft_) return true;
    ++idleWaits_;
    idle_.wait(
        lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return stopped_ || endedInFlight_ == 0; });
    --idleWaits_;
    if (stopped_) return false;
    clientLeft_ = false;
  }
  platform::ports().pipes->disconnect(handle());
  return true;
}

void CancelablePipe::endEpoch() {
  ++epoch_;
  endedInFlight_ += inFlight_;
  inFlight_ = 0;
}

bool CancelablePipe::cancelCalls() {
  {
    const platform::MutexLock lock(mutex_);
    endEpoch();
  }
  return cancelEnded();
}

CancelablePipe::DisconnectErrors CancelablePipe::disconnect() {
  {
    const platform::MutexLock lock(mutex_);
    closed_ = true;
    clientAccepted_ = false;
    clientDropped_ = false;
    endEpoch();
  }
  DisconnectErrors errors{errorOf(cancelEnded()), error::kPipeBusy};
  bool left = false;
  {
    const platform::MutexLock lock(mutex_);
    left = clientLeft_ = endedInFlight_ > 0;
  }
  if (!left) errors.disconnect = errorOf(platform::ports().pipes->disconnect(handle()));
  const platform::MutexLock lock(mutex_);
  closed_ = false;
  return errors;
}

void CancelablePipe::dropClient(Epoch epoch) {
  run(epoch, [this] {
    {
      const platform::MutexLock lock(mutex_);
      clientDropped_ = true;
    }
    return platform::ports().pipes->disconnect(handle());
  });
}

void CancelablePipe::stop() {
  const platform::MutexLock lock(mutex_);
  stopped_ = true;
  endEpoch();
  if (idleWaits_ > 0) idle_.notifyAll();
}

void CancelablePipe::endExchanges() {
  {
    const platform::MutexLock lock(mutex_);
    exchangesEnded_ = true;
    if (exchangesInFlight_ == 0) return;
  }
  platform::ports().pipes->cancel(handle());
  cancelAgainUntilNone([this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return exchangesInFlight_; });
}

bool CancelablePipe::cancelEnded() {
  const bool cancelled = platform::ports().pipes->cancel(handle());
  const std::uint32_t error = platform::lastError();
  cancelAgainUntilNone([this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return endedInFlight_; });
  platform::setLastError(error);
  return cancelled;
}

template <typename Count>
void CancelablePipe::cancelAgainUntilNone(Count inFlight) {
  int left = 0;
  {
    platform::MutexLock lock(mutex_);
    ++idleWaits_;
    // Counted, not timed: a process that was stopped meanwhile has its full number of tries.
    for (int retries = kCancelRetries; retries > 0; --retries) {
      if (idle_.waitFor(lock, kCancelRetry, [&] { return inFlight() == 0; })) break;
      lock.unlock();
      platform::ports().pipes->cancel(handle());
      lock.lock();
    }
    --idleWaits_;
    left = inFlight();
  }
  if (left == 0) return;
  logError(kNoError, "Gave up cancelling IO on the %s named pipe: %d calls have not returned",
           label_, left);
}

}  // namespace zelta
