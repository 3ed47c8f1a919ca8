// The place the card is in: knows whether one is there and puts commands to it with a time limit.
//
// The back end's calls run on a worker thread of the slot's own, one at a time. A call that is not
// done when its command's time is up is left to end by itself; what it returns is thrown away, and
// the next command waits for it within its own time. The slot lives as long as its owner, over any
// number of connections.
//
// `ask` comes from one thread at a time; everything else from any thread. The observer is called
// with the slot's lock held, on whatever thread the back end notifies: it must return quickly and
// must not call the slot.
#pragma once

#include <chrono>
#include <cstdint>
#include <thread>

#include "agent/card_backend.h"
#include "agent/failure.h"
#include "agent/report_rule.h"
#include "platform/sync.h"

namespace zelta::agent {

using SteadyClock = std::chrono::steady_clock;

class CardSlot final : private CardListener {
 public:
  class Observer {
   public:
    // The state at the moment of `observe`; `kNoCard` where none is in.
    virtual void observing(CardId card) = 0;
    virtual void cardArrived(CardId card) = 0;
    virtual void cardDeparted() = 0;

   protected:
    ~Observer() = default;
  };

  enum class Operation { Reset, Atr, Transmit };

  enum class Result {
    Answered,  // `data` is not empty
    NoCard,    // none in, pulled meanwhile, or mute
    Late,      // not done in time
    Aborted,   // by `abort`
  };

  struct Answer {
    Result result;
    Bytes data;
    CardId card = kNoCard;  // the one that answered
  };

  struct Status {
    CardId card = kNoCard;
    Bytes atr;  // as last seen of the card that is in; may be empty
  };

  // `backend` outlives the slot and is started and stopped by it. `onFailure` learns of a thread of
  // the slot's or the back end's that has ended by an exception.
  CardSlot(CardBackend& backend, OnFailure onFailure);
  // Stops first where that has not been done.
  ~CardSlot();
  CardSlot(const CardSlot&) = delete;
  CardSlot& operator=(const CardSlot&) = delete;

  // Throws what the back end throws, or std::system_error for lack of threads; nothing is started
  // then. Once.
  void start();
  // Interrupts the card, ends the worker and stops the back end. Blocks for as long as a card that
  // cannot be interrupted takes.
  void stop();

  // From now on `observer` (non-owning, null for none) is told; nothing is told to the one before
  // once this returns.
  void observe(Observer* observer);

  // Has an observer told for a scope.
  class Observation {
   public:
    Observation(CardSlot& slot, Observer& observer) : slot_(slot) { slot_.observe(&observer); }
    ~Observation() { slot_.observe(nullptr); }
    Observation(const Observation&) = delete;
    Observation& operator=(const Observation&) = delete;

   private:
    CardSlot& slot_;
  };

  Answer ask(Operation operation, const Bytes& command, SteadyClock::time_point deadline);
  // While set, `ask` returns Aborted at once, also where it waits already.
  void setAborted(bool aborted);
  // Passes the driver's notice on.
  void ready();

  std::string insert();
  std::string remove();
  Status status() const;

 private:
  void cardInserted() override;
  void cardRemoved() override;
  void cardFailed(const char* problem) override { onFailure_(problem); }

  // Waits until the worker is free or has ended, `card` is not in any more, or the deadline.
  // True: what was waited for.
  bool waitForWorker(platform::MutexLock& lock, CardId card, SteadyClock::time_point deadline)
      ZELTA_REQUIRES(mutex_);
  Result whyNot(CardId card) const ZELTA_REQUIRES(mutex_);
  void work();
  Bytes perform(Operation operation, const Bytes& command);

  CardBackend& backend_;
  const OnFailure onFailure_;
  mutable platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  Observer* observer_ ZELTA_GUARDED_BY(mutex_) = nullptr;
  CardId card_ ZELTA_GUARDED_BY(mutex_) = kNoCard;
  CardId lastCard_ ZELTA_GUARDED_BY(mutex_) = kNoCard;
  Bytes atr_ ZELTA_GUARDED_BY(mutex_);
  bool aborted_ ZELTA_GUARDED_BY(mutex_) = false;
  bool ending_ ZELTA_GUARDED_BY(mutex_) = false;
  // The worker's one job. Busy from the moment it is handed over until the card has ended it.
  bool busy_ ZELTA_GUARDED_BY(mutex_) = false;
  bool pending_ ZELTA_GUARDED_BY(mutex_) = false;  // handed over, not taken yet
  Operation operation_ ZELTA_GUARDED_BY(mutex_) = Operation::Atr;
  Bytes command_ ZELTA_GUARDED_BY(mutex_);
  Bytes response_ ZELTA_GUARDED_BY(mutex_);  // of the job that ended last
  bool started_ = false;                     // the owner's thread only
  std::thread worker_;
};

}  // namespace zelta::agent
