#include "agent/link/command_threads.h"

#include <utility>

namespace zelta::agent {

CommandThreads::CommandThreads(CardSlot& slot, std::chrono::milliseconds longest,
                               OnFailure onFailure)
    : slot_(slot), longest_(longest), onFailure_(std::move(onFailure)) {}

CommandThreads::~CommandThreads() { stop(); }

void CommandThreads::start() {
  for (Member& member : members_) {
    member.thread = std::thread([this, &member] { run(member); });
  }
}

void CommandThreads::stop() {
  {
    const platform::MutexLock lock(mutex_);
    ending_ = true;
    follow_.notifyAll();
  }
  slot_.interrupt();
  for (Member& member : members_) {
    if (member.thread.joinable()) member.thread.join();
  }
}

void CommandThreads::serve(CommandStream& stream) {
  platform::MutexLock lock(mutex_);
  if (ending_) return;
  stream_ = &stream;
  abandoned_ = false;
  follow_.notifyAll();
  ended_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return stream_ == nullptr; });
}

void CommandThreads::abandon(const CommandStream& stream) {
  const platform::MutexLock lock(mutex_);
  if (stream_ != &stream) return;
  abandoned_ = true;
  // A leader that uses the stream notices by itself, at the latest when it is about to ask the
  // card.
  if (call_ || !led_) endStream();
}

void CommandThreads::cardDeparted() {
  const platform::MutexLock lock(mutex_);
  if (!call_) return;
  follow_.notifyAll();
  cardFree_.notifyAll();
}

void CommandThreads::endStream() {
  ++term_;
  call_.reset();
  led_ = false;
  stream_ = nullptr;
  ended_.notifyAll();
  cardFree_.notifyAll();
}

void CommandThreads::run(Member& self) {
  bool failed = true;
  guarded(onFailure_, [&] {
    while (const std::optional<Duty> duty = follow(self)) lead(self, *duty);
    failed = false;
  });
  if (!failed) return;
  // `serve` must not wait for this thread, and one thread alone cannot serve.
  const platform::MutexLock lock(mutex_);
  ending_ = true;
  follow_.notifyAll();
  if (led_ && term_ == self.term) endStream();
}

std::optional<CommandThreads::Duty> CommandThreads::follow(Member& self) {
  platform::MutexLock lock(mutex_);
  while (!ending_) {
    std::optional<Duty> duty = findDuty(self);
    if (duty) return duty;
    sleep(lock);
  }
  return std::nullopt;
}

std::optional<CommandThreads::Duty> CommandThreads::findDuty(Member& self) {
  if (stream_ == nullptr) return std::nullopt;
  std::optional<Outcome> outcome;
  if (led_) {
    if (!call_) return std::nullopt;
    const bool departed = slot_.card() != call_->card;
    if (!departed && SteadyClock::now() < call_->command->cardLimit) return std::nullopt;
    outcome = Outcome{departed ? Outcome::Result::kNoAnswer : Outcome::Result::kLate};
    // The leader does not change its command while its call is in the card.
    self.command = *call_->command;
    call_.reset();
  }
  led_ = true;
  self.term = ++term_;
  return Duty{*stream_, std::move(outcome)};
}

void CommandThreads::sleep(platform::MutexLock& lock) {
  auto until = SteadyClock::time_point::max();
  if (led_) until = call_ ? call_->command->cardLimit : SteadyClock::now() + longest_;
  asleepUntil_ = until;
  const auto woken = [this, until]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return ending_ || asleepUntil_ != until || (stream_ != nullptr && !led_) ||
           (call_ && slot_.card() != call_->card);
  };
  if (led_) {
    follow_.waitFor(lock, until - SteadyClock::now(), woken);
  } else {
    follow_.wait(lock, woken);
  }
  asleepUntil_ = SteadyClock::time_point::min();
}

void CommandThreads::lead(Member& self, const Duty& duty) {
  CommandStream& stream = duty.stream;
  bool open = !duty.outcome || stream.answer(self.command, *duty.outcome);
  while (open) {
    std::optional<Command> command = stream.read();
    if (!command) break;
    self.command = std::move(*command);
    const std::optional<Outcome> outcome = ask(self);
    if (!outcome) return;
    open = stream.answer(self.command, *outcome);
  }
  const platform::MutexLock lock(mutex_);
  endStream();
}

std::optional<Outcome> CommandThreads::ask(const Member& self) {
  platform::MutexLock lock(mutex_);
  if (abandoned_) {
    endStream();
    return std::nullopt;
  }
  const CardId card = slot_.card();
  if (card == kNoCard) return Outcome{Outcome::Result::kNoAnswer};
  noteCall(Call{&self.command, card});
  Outcome outcome{Outcome::Result::kLate};
  if (waitForCard(lock, self, card)) {
    cardBusy_ = true;
    lock.unlock();
    outcome = slot_.perform(self.command, card);
    lock.lock();
    cardBusy_ = false;
    cardFree_.notifyAll();
  }
  if (term_ != self.term) return std::nullopt;
  call_.reset();
  if (slot_.card() != card) return Outcome{Outcome::Result::kNoAnswer};
  return outcome;
}

void CommandThreads::noteCall(const Call& call) {
  call_ = call;
  if (call.command->cardLimit >= asleepUntil_) return;
  asleepUntil_ = call.command->cardLimit;
  follow_.notifyAll();
}

bool CommandThreads::waitForCard(platform::MutexLock& lock, const Member& self, CardId card) {
  const auto decided = [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return !cardBusy_ || term_ != self.term || slot_.card() != card;
  };
  const SteadyClock::duration left = self.command.cardLimit - SteadyClock::now();
  if (left <= SteadyClock::duration::zero()) return false;
  if (!cardBusy_) return true;
  return cardFree_.waitFor(lock, left, decided) && !cardBusy_ && term_ == self.term &&
         slot_.card() == card;
}

}  // namespace zelta::agent
