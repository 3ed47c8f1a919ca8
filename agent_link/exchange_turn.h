// Gives threads turns to exchange with the agent: one at a time, in the order of their requests.
//
// Taking and giving up a turn that nobody else wants makes no system call. The mutex is held for a
// moment only, never during an exchange.
//
// Threads: any.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

#include "platform/sync/sync.h"

namespace zelta {

class ExchangeTurn {
 public:
  using Clock = std::chrono::steady_clock;

  // The longest time that an ended holder may take to give its turn up.
  static constexpr std::chrono::milliseconds kHandOver{1000};

  // Gives up a turn that was taken.
  class Holder {
   public:
    explicit Holder(ExchangeTurn& turn) : turn_(turn) {}
    ~Holder() { turn_.giveUp(); }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

   private:
    ExchangeTurn& turn_;
  };

  // Made around a request's handler, on its thread. Ends before any `ExchangeTurn` that the handler
  // has used.
  //
  // Time the handler spends before it asks for a turn counts towards the wait. A turn that it gives
  // up stays reserved until it takes another or the scope ends, so no insertion can come between
  // the answer and the request's completion. A request therefore waits for at most two limits.
  class RequestScope {
   public:
    // A scope inside another one of the same thread has no effect.
    explicit RequestScope(Clock::time_point begun = Clock::now());
    ~RequestScope();
    RequestScope(const RequestScope&) = delete;
    RequestScope& operator=(const RequestScope&) = delete;

   private:
    friend class ExchangeTurn;

    // What is left of `limit` for the wait that begins now. Passes on a turn that is kept.
    std::chrono::milliseconds beginWait(std::chrono::milliseconds limit);

    Clock::time_point waitingSince_;
    ExchangeTurn* kept_ = nullptr;
  };

  ExchangeTurn() = default;
  ExchangeTurn(const ExchangeTurn&) = delete;
  ExchangeTurn& operator=(const ExchangeTurn&) = delete;

  // Waits up to `limit` for the turn; false if the caller did not get it. When the limit is up, it
  // runs `endHolder` without the mutex, keeping the caller's place in the order. If that returns
  // true, the holder is about to give the turn up, and the caller waits up to `kHandOver` more.
  // `endHolder` must not throw. Throws std::bad_alloc before it waits.
  [[nodiscard]] bool take(std::chrono::milliseconds limit, const std::function<bool()>& endHolder)
      ZELTA_EXCLUDES(mutex_);

 private:
  using Ticket = std::uint64_t;
  static constexpr Ticket kNobody = 0;

  // For a request, `passOn` follows later.
  void giveUp() ZELTA_EXCLUDES(mutex_);
  void passOn() ZELTA_EXCLUDES(mutex_);

  platform::Mutex mutex_;
  platform::ConditionVariable passedOn_;
  Ticket lastTicket_ ZELTA_GUARDED_BY(mutex_) = kNobody;
  Ticket holder_ ZELTA_GUARDED_BY(mutex_) = kNobody;
  std::vector<Ticket> waiting_ ZELTA_GUARDED_BY(mutex_);  // in order
};

}  // namespace zelta
