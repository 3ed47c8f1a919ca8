// The blocking calls on one pipe, and how another thread ends them for certain.
//
// The system's cancel releases only what is blocked at that moment: a thread that is just about to
// enter its call is missed, and would then wait for a client or an agent that may never come; on
// Windows whoever disconnects the pipe would wait behind it as well. So every blocking call goes
// through here. Calls belong to a series (one exchange with the agent, one connection's events,
// one wait for a client). Ending a series first refuses its further calls, then cancels the pipe
// once, and, only as long as one of its calls is still in flight, cancels again after a short wait
// for it.
//
// Windows lets a client open a pipe that nobody has connected yet, and carries its bytes. The
// reader would talk to an agent that it has not let in, and then never let it in. And while one is
// waited for, an exchange would wait behind that. So as long as no client was let in there is none,
// whatever the system says: exchanges fail with 536.
//
// Ownership: beside the pipe's handle in its reader, and lives as long.
// Threads: any. No lock is held while a call or a cancel is under way.
#pragma once

#include <chrono>
#include <cstdint>

#include "agent_link/pipe_handle.h"
#include "platform/error.h"
#include "platform/pipe.h"
#include "platform/sync.h"

namespace zelta {

class PipeCalls {
 public:
  // Of calls that are ended together.
  struct Series {
    std::uint64_t number;
    bool exchange;  // reads, writes or flushes; false: waits for a client
  };

  // How long a call that a cancel has missed may go on before the next one.
  static constexpr std::chrono::milliseconds kCancelRetry{5};

  PipeCalls() = default;
  PipeCalls(const PipeCalls&) = delete;
  PipeCalls& operator=(const PipeCalls&) = delete;

  // Of an exchange with the client, or of what it sends unasked.
  Series beginSeries();
  // Of a wait for a client.
  Series beginConnect();

  // Runs `call`, which blocks on the pipe and returns whether it succeeded. Where the series has
  // been ended, or the pipe is closed or stopped, it is not run and the result is false with
  // the last error 995 (cancelled); else, where it is an exchange and no client was let in, with
  // 536.
  template <typename Call>
  bool run(const Series& series, Call call) {
    const std::uint32_t refusal = enter(series);
    if (refusal != platform::error::kSuccess) {
      platform::setLastError(refusal);
      return false;
    }
    const Leave leave{*this, series};
    return call();
  }

  // A connect has let a client in.
  void letIn();

  // Ends every series begun so far and returns once none of their calls is in flight. The result
  // and the last error are those of the first cancel: false and 1168 where nothing was blocked.
  bool endSeries(platform::PipeHandleValue pipe);
  // The same, and refuses every call of a later series until `reopen`.
  bool close(platform::PipeHandleValue pipe);
  void reopen();
  // Refuses every call of an exchange for good, and returns once none is in flight. A wait for a
  // client goes on. Cancels nothing where no call of an exchange is in flight.
  void endExchanges(const PipeHandle& pipe);
  // Refuses every call from now on; ends none that is in flight (`close` does).
  void stop();

 private:
  struct Leave {
    PipeCalls& calls;
    const Series& series;
    ~Leave() { calls.leave(series); }
  };

  // 0, or the error that the call is refused with.
  std::uint32_t enter(const Series& series);
  void leave(const Series& series);
  void endCurrent() ZELTA_REQUIRES(mutex_);
  bool cancelUntilIdle(platform::PipeHandleValue pipe) ZELTA_EXCLUDES(mutex_);
  bool awaitIdle() ZELTA_EXCLUDES(mutex_);
  // For a moment; true where none is in flight any more.
  bool awaitNoExchange(platform::MutexLock& lock) ZELTA_REQUIRES(mutex_);

  platform::Mutex mutex_;
  platform::ConditionVariable idle_;
  std::uint64_t current_ ZELTA_GUARDED_BY(mutex_) = 0;
  int inFlight_ ZELTA_GUARDED_BY(mutex_) = 0;           // calls of the current series
  int endedInFlight_ ZELTA_GUARDED_BY(mutex_) = 0;      // calls of series that were ended
  int exchangesInFlight_ ZELTA_GUARDED_BY(mutex_) = 0;  // of both, those of exchanges
  bool clientLetIn_ ZELTA_GUARDED_BY(mutex_) = false;   // and not closed since
  bool exchangesEnded_ ZELTA_GUARDED_BY(mutex_) = false;
  bool closed_ ZELTA_GUARDED_BY(mutex_) = false;
  bool stopped_ ZELTA_GUARDED_BY(mutex_) = false;
};

}  // namespace zelta
