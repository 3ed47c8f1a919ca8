// Writes one connection's event pipe: the session log id first, then what the report rule decides.
//
// It has two threads; both end when the pipe is closed or cancelled. The watcher writes the session
// id and waits until the driver has taken it, which the driver does once it listens for events. The
// grace period begins then, and the thread watches for the pipe's end.
// An event is written on the thread that decides it if the pipe takes it at once, since a wake-up
// is a tenth of the time until a client sees a card go. The other thread, the writer, writes the
// rest in the order of decision, without waiting for the driver to read them, and logs all. A pipe
// that stays full of unread events is cancelled when its time is up.
// A card that comes and goes before its arrival is written and before the driver has its ATR is not
// reported at all: cards that change faster than the driver reads leave no backlog.
//
// `commandBegan`, `beginAnswer`, `endAnswer` and `waitWritten` come from one thread at a time, for
// each command; they wake the writer only if there is an event. As the slot's observer it is
// called under the slot's lock; it never calls the slot.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "agent/card/card_slot.h"
#include "agent/link/pipe_client_port.h"
#include "agent/link/report_rule.h"
#include "agent/program/failure.h"
#include "agent/program/log.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

class EventReporter final : public CardSlot::Observer {
 public:
  struct Settings {
    std::string sessionId;
    std::chrono::milliseconds grace;  // delay before a card is reported without a command
    std::chrono::milliseconds limit;  // longest wait for a full pipe
  };

  // `pipe` and `log` outlive the reporter. `onLost` is called once, from one of its threads, when
  // the pipe has ended; `onTaken` when the driver has taken the session id; `onFailure` when one of
  // the threads has ended by an exception. None may destroy the reporter.
  EventReporter(PipeConnection& pipe, Settings settings, std::function<void()> onTaken,
                std::function<void()> onLost, OnFailure onFailure, Log& log);
  // Cancels the pipe and joins the threads.
  ~EventReporter();
  EventReporter(const EventReporter&) = delete;
  EventReporter& operator=(const EventReporter&) = delete;

  // After the slot observes this; the pipe is not written before. Throws std::system_error for lack
  // of threads.
  void start();

  void commandBegan();
  // Call before a command is answered with the ATR of `atrOf`, or otherwise (`kNoCard`). False if
  // that card is not in any more: nothing has begun, and the command must be answered otherwise.
  bool beginAnswer(CardId atrOf);
  void endAnswer();
  // Waits until everything decided so far is handed over, the pipe has ended or takes no more for
  // now, or until the deadline.
  void waitWritten(SteadyClock::time_point deadline);

 private:
  struct Event {
    ReportRule::Report report;
    bool posted;  // handed over, and only to be logged
  };

  void observing(CardId card) override;
  void cardArrived(CardId card) override;
  void cardDeparted() override;

  void queue(ReportRule::Report report) ZELTA_REQUIRES(mutex_);
  // Hands over what waits, as far as the pipe takes it at once, and wakes who waits for that.
  void postWaiting() ZELTA_REQUIRES(mutex_);
  // Whether an event may be handed over now.
  bool mayPost() const ZELTA_REQUIRES(mutex_) { return sessionSent_ && !answering_; }
  bool allPosted() const ZELTA_REQUIRES(mutex_) { return events_.empty() || events_.back().posted; }
  [[nodiscard]] bool tryPost(ReportRule::Report report);
  [[nodiscard]] bool sendSessionId();
  void watchPipe();
  void writeEvents();
  // Waits for the next event. None: the pipe has ended.
  std::optional<Event> awaitEvent();
  IoResult postEvent(ReportRule::Report report);
  // Writes the first event. False if the pipe has ended.
  [[nodiscard]] bool writeFirst(ReportRule::Report report);
  void setFull(bool full);
  IoResult postNumber(std::uint32_t number, std::optional<SteadyClock::time_point> deadline);
  void noteEnd();

  PipeConnection& pipe_;
  const Settings settings_;
  const std::function<void()> onTaken_;
  const std::function<void()> onLost_;
  const OnFailure onFailure_;
  Log& log_;

  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  ReportRule rule_ ZELTA_GUARDED_BY(mutex_){kNoCard};
  // Decided and not logged; those that are not posted come last.
  std::deque<Event> events_ ZELTA_GUARDED_BY(mutex_);
  bool writing_ ZELTA_GUARDED_BY(mutex_) = false;  // the first is being handed over
  bool full_ ZELTA_GUARDED_BY(mutex_) = false;     // the pipe, with unread events
  bool answering_ ZELTA_GUARDED_BY(mutex_) = false;
  bool atrGiven_ ZELTA_GUARDED_BY(mutex_) = false;  // of the card that is in, to the driver
  bool sessionSent_ ZELTA_GUARDED_BY(mutex_) = false;
  bool taken_ ZELTA_GUARDED_BY(mutex_) = false;  // the session id, by the driver
  SteadyClock::time_point graceEnd_ ZELTA_GUARDED_BY(mutex_);
  bool ended_ ZELTA_GUARDED_BY(mutex_) = false;

  std::thread watcher_;
  std::thread writer_;
};

}  // namespace zelta::agent
