// Knows whether a card is in, tells an observer of its arrival and departure, and passes commands
// on to the back end.
//
// Lives as long as its owner, over any number of connections. `perform` comes one call at a time;
// everything else from any thread. The observer is called with the slot's lock held, on whatever
// thread the back end notifies: it must return quickly and must not call the slot.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "agent/card/card_backend.h"
#include "agent/link/command.h"
#include "agent/link/report_rule.h"
#include "agent/program/failure.h"
#include "agent/trace/trace_record.h"
#include "contract/bytes.h"
#include "platform/process/wipe.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

class CardSlot final : private CardListener {
 public:
  class Observer {
   public:
    // The state at the moment of `observe`; `kNoCard` if none is in.
    virtual void observing(CardId card) = 0;
    virtual void cardArrived(CardId card) = 0;
    virtual void cardDeparted() = 0;

   protected:
    ~Observer() = default;
  };

  struct Status {
    CardId card = kNoCard;
    Bytes atr;                     // the last one seen of the current card; may be empty
    std::uint64_t apdus = 0;       // sent to the card
    std::uint64_t unanswered = 0;  // commands that the card left unanswered
  };

  // `backend` outlives the slot and is started and stopped by it. `onDeparture` is called after the
  // observer, without a lock held; may be empty. `onFailure` is called if a thread of the back end
  // ends by an exception. `trace`, which is told of everything, may be null; it outlives the slot.
  CardSlot(CardBackend& backend, std::function<void()> onDeparture, OnFailure onFailure,
           TraceSink* trace = nullptr);
  // Stops first if that has not been done.
  ~CardSlot();
  CardSlot(const CardSlot&) = delete;
  CardSlot& operator=(const CardSlot&) = delete;

  // Call once. Throws what the back end throws; the slot is not started then.
  void start();
  // Makes the call that is in the card, and every later one, return as soon as the card allows.
  void interrupt();
  // Stops the back end. Call when no call is in the card; nobody is told anything afterwards.
  void stop();

  // Replaces the observer (not owned; null for none). On return the previous one is no longer
  // called.
  void observe(Observer* observer);

  // Lets an observer observe for a scope.
  class Observation {
   public:
    Observation(CardSlot& slot, Observer& observer) : slot_(slot) { slot_.observe(&observer); }
    ~Observation() { slot_.observe(nullptr); }
    Observation(const Observation&) = delete;
    Observation& operator=(const Observation&) = delete;

   private:
    CardSlot& slot_;
  };

  // The card that is in.
  CardId card() const;
  // What `card` answers, however long that takes; kNoAnswer if it has left meanwhile.
  Outcome perform(const Command& command, CardId card);
  // Tells the back end that the driver starts to use the card.
  void ready();

  std::string insert();
  std::string remove();
  Status status() const;

 private:
  void cardInserted() override;
  void cardRemoved() override;
  void cardFailed(const char* problem) override { onFailure_(problem); }

  Bytes call(const Command& command);
  // Calls the card, counts the call and tells the trace.
  platform::SecretBytes callTraced(const Command& command);
  void tell(TraceRecord::Kind kind);

  CardBackend& backend_;
  const std::function<void()> onDeparture_;
  const OnFailure onFailure_;
  TraceSink* const trace_;  // not owned; may be null
  SecretMask secrets_;      // for the caller of `perform` only
  std::atomic<std::uint64_t> apdus_{0};
  std::atomic<std::uint64_t> unanswered_{0};
  mutable platform::Mutex mutex_;
  Observer* observer_ ZELTA_GUARDED_BY(mutex_) = nullptr;
  CardId card_ ZELTA_GUARDED_BY(mutex_) = kNoCard;
  CardId lastCard_ ZELTA_GUARDED_BY(mutex_) = kNoCard;
  Bytes atr_ ZELTA_GUARDED_BY(mutex_);
  bool started_ = false;  // the owner's thread only
};

}  // namespace zelta::agent
