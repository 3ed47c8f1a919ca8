// The two threads that serve the driver's commands: one leads, the other follows.
//
// The leader reads a command, takes it into the card and answers it, without another thread's help.
// The follower sleeps until the leader's command is overdue, or its card has left. Then it answers
// in the leader's place and becomes the leader; the old leader discards the card's late result and
// follows. So a card that hangs holds up neither the answer nor the connection, and the next
// command waits for it within its own time.
//
// A command needs no hand-over and no system call: its time limit is only noted. The follower
// checks again when the next command could be overdue at the earliest. It is woken only for a
// command that is overdue earlier.
//
// Both threads live as long as this object, over any number of connections, because a call in the
// card may outlast its connection. No lock is held while a stream or the card is used.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <thread>

#include "agent/card/card_slot.h"
#include "agent/link/command.h"
#include "agent/program/failure.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

class CommandThreads {
 public:
  // `slot` outlives the threads. `longest` is the usual time from reading a command to its
  // `cardLimit`. `onFailure` is called if a thread ends by an exception; nothing more is served
  // then.
  CommandThreads(CardSlot& slot, std::chrono::milliseconds longest, OnFailure onFailure);
  // Stops first if that has not been done.
  ~CommandThreads();
  CommandThreads(const CommandThreads&) = delete;
  CommandThreads& operator=(const CommandThreads&) = delete;

  // Once. Throws std::system_error for lack of threads.
  void start();
  // Interrupts the card and ends the threads; nothing is served then. Blocks for as long as a card
  // that cannot be interrupted takes.
  void stop();

  // Serves the commands of `stream` until its end or `abandon`. The stream is not used any more
  // when this returns. One call at a time.
  void serve(CommandStream& stream);
  // Ends `serve` of this stream at the latest when the stream ends by itself, without waiting for a
  // command that is in the card or waits for it. Any thread.
  void abandon(const CommandStream& stream);
  // Call after the card has left and the slot knows. Any thread that does not hold the slot's lock.
  void cardDeparted();

 private:
  // A thread, and the command that it has read or answers in another's place.
  struct Member {
    std::thread thread;
    Command command;
    std::uint64_t term = 0;  // in which it led last; for its own thread only
  };
  // What the leader is asking the card.
  struct Call {
    const Command* command;
    CardId card;
  };
  // What a thread that begins to lead has to do.
  struct Duty {
    CommandStream& stream;
    std::optional<Outcome> outcome;  // of the command that is to be answered first
  };

  void run(Member& self);
  // Blocks until there is a duty. Returns none on stop.
  std::optional<Duty> follow(Member& self);
  std::optional<Duty> findDuty(Member& self) ZELTA_REQUIRES(mutex_);
  void sleep(platform::MutexLock& lock) ZELTA_REQUIRES(mutex_);
  void lead(Member& self, const Duty& duty);
  // Returns none if this thread no longer leads; it must not touch the stream then.
  std::optional<Outcome> ask(const Member& self);
  // Notes the call; wakes the follower only if it would look too late.
  void noteCall(const Call& call) ZELTA_REQUIRES(mutex_);
  // Waits until no call is in the card. False, and the card must not be called, if this thread no
  // longer leads, the card has left or the command's time is over.
  [[nodiscard]] bool waitForCard(platform::MutexLock& lock, const Member& self, CardId card)
      ZELTA_REQUIRES(mutex_);
  // No thread leads, and the stream is not used any more.
  void endStream() ZELTA_REQUIRES(mutex_);

  CardSlot& slot_;
  const std::chrono::milliseconds longest_;
  const OnFailure onFailure_;

  platform::Mutex mutex_;
  platform::ConditionVariable follow_;    // something to lead, an earlier deadline, or the end
  platform::ConditionVariable cardFree_;  // or nobody should wait for it any more
  platform::ConditionVariable ended_;     // the stream
  bool ending_ ZELTA_GUARDED_BY(mutex_) = false;
  CommandStream* stream_ ZELTA_GUARDED_BY(mutex_) = nullptr;  // being served
  bool abandoned_ ZELTA_GUARDED_BY(mutex_) = false;           // that stream
  bool led_ ZELTA_GUARDED_BY(mutex_) = false;
  std::uint64_t term_ ZELTA_GUARDED_BY(mutex_) = 0;  // changes whenever leadership does
  std::optional<Call> call_ ZELTA_GUARDED_BY(mutex_);
  bool cardBusy_ ZELTA_GUARDED_BY(mutex_) = false;  // a call is in the card, led or not
  // Until when a follower sleeps at the latest; in the past if none sleeps.
  SteadyClock::time_point asleepUntil_ ZELTA_GUARDED_BY(mutex_) = SteadyClock::time_point::min();
  std::array<Member, 2> members_;
};

}  // namespace zelta::agent
