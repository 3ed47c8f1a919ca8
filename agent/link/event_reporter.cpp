#include "agent/link/event_reporter.h"

#include <utility>

#include "contract/bytes.h"
#include "contract/wire.h"

namespace zelta::agent {

namespace {

std::uint32_t codeOf(ReportRule::Report report) {
  return static_cast<std::uint32_t>(report == ReportRule::Report::kInserted
                                        ? AgentEvent::kCardInserted
                                        : AgentEvent::kCardRemoved);
}

}  // namespace

EventReporter::EventReporter(PipeConnection& pipe, Settings settings, std::function<void()> onTaken,
                             std::function<void()> onLost, OnFailure onFailure, Log& log)
    : pipe_(pipe),
      settings_(std::move(settings)),
      onTaken_(std::move(onTaken)),
      onLost_(std::move(onLost)),
      onFailure_(std::move(onFailure)),
      log_(log) {}

EventReporter::~EventReporter() {
  {
    const platform::MutexLock lock(mutex_);
    ended_ = true;
    changed_.notifyAll();
  }
  pipe_.cancel();
  if (watcher_.joinable()) watcher_.join();
  if (writer_.joinable()) writer_.join();
}

void EventReporter::start() {
  watcher_ = std::thread([this] { guarded(onFailure_, [this] { watchPipe(); }); });
  writer_ = std::thread([this] { guarded(onFailure_, [this] { writeEvents(); }); });
}

void EventReporter::commandBegan() {
  const platform::MutexLock lock(mutex_);
  rule_.commandBegan();  // the writer finds out when the grace period ends
}

bool EventReporter::beginAnswer(CardId atrOf) {
  const platform::MutexLock lock(mutex_);
  if (atrOf != kNoCard && !rule_.holds(atrOf)) return false;
  answering_ = true;
  if (atrOf != kNoCard) atrGiven_ = true;
  queue(atrOf == kNoCard ? rule_.answeredOtherwise() : rule_.answeredWithAtr());
  return true;
}

void EventReporter::endAnswer() {
  const platform::MutexLock lock(mutex_);
  answering_ = false;
  if (!allPosted()) postWaiting();
}

void EventReporter::waitWritten(SteadyClock::time_point deadline) {
  platform::MutexLock lock(mutex_);
  changed_.waitFor(lock, deadline - SteadyClock::now(), [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return allPosted() || full_ || ended_;
  });
}

void EventReporter::observing(CardId card) {
  const platform::MutexLock lock(mutex_);
  rule_ = ReportRule(card);
}

void EventReporter::cardArrived(CardId card) {
  const platform::MutexLock lock(mutex_);
  atrGiven_ = false;
  queue(rule_.arrived(card));
}

void EventReporter::cardDeparted() {
  const platform::MutexLock lock(mutex_);
  queue(rule_.departed());
}

void EventReporter::queue(ReportRule::Report report) {
  if (report == ReportRule::Report::kNothing || ended_) return;
  const bool waits = !allPosted() && !(writing_ && events_.size() == 1);
  if (report == ReportRule::Report::kRemoved && waits && !atrGiven_ &&
      events_.back().report == ReportRule::Report::kInserted) {
    events_.pop_back();  // nobody has heard of that card
  } else {
    events_.push_back({report, false});
  }
  postWaiting();
}

void EventReporter::postWaiting() {
  if (mayPost() && !writing_) {
    for (Event& each : events_) {
      each.posted = each.posted || tryPost(each.report);
      if (!each.posted) break;
    }
  }
  changed_.notifyAll();
}

bool EventReporter::tryPost(ReportRule::Report report) {
  const auto bytes = toLittleEndian(codeOf(report));
  return pipe_.tryPost(bytes.data(), bytes.size());
}

IoResult EventReporter::postNumber(std::uint32_t number,
                                   std::optional<SteadyClock::time_point> deadline) {
  const auto bytes = toLittleEndian(number);
  return pipe_.post(bytes.data(), bytes.size(), deadline);
}

bool EventReporter::sendSessionId() {
  const auto length = static_cast<std::uint32_t>(settings_.sessionId.size());
  const auto code = static_cast<std::uint32_t>(AgentEvent::kSessionLogId);
  return postNumber(code, std::nullopt) == IoResult::kDone &&
         postNumber(length, std::nullopt) == IoResult::kDone &&
         pipe_.post(settings_.sessionId.data(), length, std::nullopt) == IoResult::kDone;
}

void EventReporter::watchPipe() {
  if (sendSessionId()) {
    {
      const platform::MutexLock lock(mutex_);
      sessionSent_ = true;
      postWaiting();
    }
    if (pipe_.flush() == IoResult::kDone) {
      {
        const platform::MutexLock lock(mutex_);
        taken_ = true;
        graceEnd_ = SteadyClock::now() + settings_.grace;
        changed_.notifyAll();
      }
      onTaken_();
      // The driver never writes here, so this ends with the pipe.
      std::uint8_t unexpected = 0;
      if (pipe_.read(&unexpected, sizeof unexpected, std::nullopt) == IoResult::kDone) {
        log_.error("The driver wrote to the event pipe; dropping the connection");
      }
    }
  }
  noteEnd();
  onLost_();
}

void EventReporter::noteEnd() {
  const platform::MutexLock lock(mutex_);
  ended_ = true;
  changed_.notifyAll();
}

std::optional<EventReporter::Event> EventReporter::awaitEvent() {
  platform::MutexLock lock(mutex_);
  const auto posted = [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return !events_.empty() && events_.front().posted;
  };
  const auto due = [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return ended_ || posted() || (mayPost() && !events_.empty());
  };
  const auto graceMatters = [this]()
                                ZELTA_NO_THREAD_SAFETY_ANALYSIS { return taken_ && rule_.quiet(); };
  while (!due()) {
    if (!graceMatters()) {
      changed_.wait(lock, [&] { return due() || graceMatters(); });
      continue;
    }
    const bool woken = changed_.waitFor(lock, graceEnd_ - SteadyClock::now(),
                                        [&] { return due() || !graceMatters(); });
    if (!woken) queue(rule_.graceOver());
  }
  if (ended_ && !posted()) return std::nullopt;
  writing_ = !events_.front().posted;
  return events_.front();
}

// A driver that has left so much unread is handling an earlier event, and may need an answer to its
// command for that. So nobody waits for the events then. A timed-out post of one number has written
// nothing and may be repeated.
IoResult EventReporter::postEvent(ReportRule::Report report) {
  const std::uint32_t event = codeOf(report);
  const auto now = SteadyClock::now();
  IoResult result = postNumber(event, now);
  if (result != IoResult::kTimedOut) return result;
  setFull(true);
  result = postNumber(event, now + settings_.limit);
  setFull(false);
  return result;
}

void EventReporter::setFull(bool full) {
  const platform::MutexLock lock(mutex_);
  full_ = full;
  if (full) changed_.notifyAll();
}

bool EventReporter::writeFirst(ReportRule::Report report) {
  const IoResult result = postEvent(report);
  if (result == IoResult::kTimedOut) {
    log_.error("The driver does not take its events; dropping the connection");
    pipe_.cancel();
  }
  if (result != IoResult::kDone) return false;  // the watcher sees the end, too
  const platform::MutexLock lock(mutex_);
  events_.front().posted = true;
  writing_ = false;
  postWaiting();
  return true;
}

void EventReporter::writeEvents() {
  while (const std::optional<Event> event = awaitEvent()) {
    if (!event->posted && !writeFirst(event->report)) return;
    log_.info(event->report == ReportRule::Report::kInserted ? "Card insertion reported"
                                                             : "Card removal reported");
    const platform::MutexLock lock(mutex_);
    events_.pop_front();
    changed_.notifyAll();
  }
}

}  // namespace zelta::agent
