// One server end of a pipe, its blocking calls, and a reliable way for another thread to end them.
//
// The system's cancel ends only calls that are blocked at that moment. It misses a thread that is
// about to enter its call, which might then wait for ever, and on Windows hold up a disconnect. So
// every blocking call goes through here and belongs to an epoch. Ending an epoch refuses further
// calls in it, then cancels the pipe repeatedly while one of its calls is in flight. It gives up
// after about two seconds and logs how many calls have not returned.
//
// Until `connect` has accepted a client, the pipe counts as having none, and exchanges fail with
// `ERROR_PIPE_LISTENING` (536). Otherwise Windows would exchange data with an early client.
//
// Ownership: owns the pipe's handle. A reader has two of these, which live as long as it does.
// Threads: any, but `hold` and `disconnect` one at a time. No lock is held while a call or a cancel
// is under way.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>

#include "agent_link/pipe_handle.h"
#include "platform/pipe/pipe.h"
#include "platform/process/error.h"
#include "platform/sync/sync.h"

namespace zelta {

class CancelablePipe {
 public:
  // The calls of an epoch are ended together.
  using Epoch = std::uint64_t;

  // The errors of the two steps of dropping a client; 0 for success.
  struct DisconnectErrors {
    std::uint32_t cancel;
    std::uint32_t disconnect;
  };

  // The time between two cancels.
  static constexpr std::chrono::milliseconds kCancelRetry{5};
  // The most repetitions of a cancel: about two seconds in all.
  static constexpr int kCancelRetries = 400;

  // `label` names the pipe in the log ("command") and is not copied. There is no pipe yet.
  CancelablePipe(const char* label, std::string name);
  CancelablePipe(const CancelablePipe&) = delete;
  CancelablePipe& operator=(const CancelablePipe&) = delete;

  // Only for stating the locks' order; nobody else takes it.
  platform::Mutex& mutex() ZELTA_RETURN_CAPABILITY(mutex_) { return mutex_; }

  const char* label() const { return label_; }
  const std::string& name() const { return name_; }
  platform::PipeHandleValue handle() const { return handle_.get(); }

  // Replaces the handle; releases the previous one.
  void hold(PipeHandle handle) { handle_ = std::move(handle); }

  // Waits for a client; 0 or the system's error. With 0, `ERROR_PIPE_CONNECTED` (535) and
  // `ERROR_IO_PENDING` (997) the client is accepted.
  [[nodiscard]] std::uint32_t connect();

  Epoch epoch();
  // Runs `call`, which blocks in an exchange with the client and returns whether it succeeded. If
  // the epoch has ended, or the pipe is stopped, it is not run and the result is false with the
  // last error `ERROR_OPERATION_ABORTED` (995); else, if no client was accepted, with 536.
  template <typename Call>
  bool run(Epoch epoch, Call call) {
    const std::uint32_t refusal = enter(Use::kExchange, epoch);
    if (refusal != platform::error::kSuccess) {
      platform::setLastError(refusal);
      return false;
    }
    const Leave leave{*this, Use::kExchange, epoch};
    return call();
  }

  // Ends the epoch, and with it every call that is in flight. The result and the last error are
  // those of the first cancel: false and `ERROR_NOT_FOUND` (1168) if nothing was blocked.
  [[nodiscard]] bool cancelCalls();
  // Ends the epoch and drops the client; no call begins meanwhile. A client whose call could not be
  // ended is dropped by the next `connect` instead (the step fails with `ERROR_PIPE_BUSY`, 231):
  // on Windows it would take as long as the call does.
  DisconnectErrors disconnect();
  // Drops the client if an exchange with it cannot be followed any more. Exchanges fail with
  // `ERROR_BROKEN_PIPE` (109) until `disconnect` or the next client. Counts as a call of the epoch:
  // if that has ended, nothing happens. No other exchange may be in flight.
  void dropClient(Epoch epoch);
  // Refuses further exchanges and ends those in flight. A wait for a client goes on. Cancels
  // nothing if no exchange is in flight.
  void endExchanges();
  // Refuses further calls; ends none that is in flight (`disconnect` does).
  void stop();

 private:
  enum class Use { kExchange, kConnect };
  struct Leave {
    CancelablePipe& pipe;
    Use use;
    Epoch epoch;
    ~Leave() { pipe.leave(use, epoch); }
  };

  // 0, or the error that the call is refused with.
  std::uint32_t enter(Use use, Epoch epoch);
  void leave(Use use, Epoch epoch);
  void endEpoch() ZELTA_REQUIRES(mutex_);
  // Drops the client that `disconnect` has left, once its calls have returned; false if the pipe
  // was stopped before.
  [[nodiscard]] bool dropLeftClient();
  // Cancels until none of the ended calls is in flight; the result is the first cancel's.
  [[nodiscard]] bool cancelEnded() ZELTA_EXCLUDES(mutex_);
  // `inFlight` counts calls with the mutex held.
  template <typename Count>
  void cancelAgainUntilNone(Count inFlight) ZELTA_EXCLUDES(mutex_);

  const char* const label_;
  const std::string name_;
  PipeHandle handle_;
  platform::Mutex mutex_;
  platform::ConditionVariable idle_;
  int idleWaits_ ZELTA_GUARDED_BY(mutex_) = 0;
  Epoch epoch_ ZELTA_GUARDED_BY(mutex_) = 0;
  int inFlight_ ZELTA_GUARDED_BY(mutex_) = 0;           // calls of this epoch
  int endedInFlight_ ZELTA_GUARDED_BY(mutex_) = 0;      // calls of epochs that have ended
  int exchangesInFlight_ ZELTA_GUARDED_BY(mutex_) = 0;  // of both, those of exchanges
  bool clientAccepted_ ZELTA_GUARDED_BY(mutex_) = false;
  bool clientDropped_ ZELTA_GUARDED_BY(mutex_) = false;
  bool clientLeft_ ZELTA_GUARDED_BY(mutex_) = false;  // to be dropped by the next connect
  bool exchangesEnded_ ZELTA_GUARDED_BY(mutex_) = false;
  bool closed_ ZELTA_GUARDED_BY(mutex_) = false;
  bool stopped_ ZELTA_GUARDED_BY(mutex_) = false;
};

}  // namespace zelta
