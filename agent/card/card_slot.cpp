#include "agent/card/card_slot.h"

#include <utility>

#include "contract/bytes.h"

namespace zelta::agent {

namespace {

TraceRecord::Kind kindOf(Command::Kind kind) {
  switch (kind) {
    case Command::Kind::kAtrWithReset:
      return TraceRecord::Kind::kReset;
    case Command::Kind::kAtr:
      return TraceRecord::Kind::kAtr;
    case Command::Kind::kTransmit:
      break;
  }
  return TraceRecord::Kind::kTransmit;
}

}  // namespace

CardSlot::CardSlot(CardBackend& backend, std::function<void()> onDeparture, OnFailure onFailure,
                   TraceSink* trace)
    : backend_(backend),
      onDeparture_(std::move(onDeparture)),
      onFailure_(std::move(onFailure)),
      trace_(trace) {}

CardSlot::~CardSlot() { stop(); }

void CardSlot::start() {
  backend_.start(*this);
  started_ = true;
}

void CardSlot::interrupt() {
  if (started_) backend_.interrupt();
}

void CardSlot::stop() {
  if (!started_) return;
  interrupt();
  started_ = false;
  backend_.stop();
}

void CardSlot::observe(Observer* observer) {
  const platform::MutexLock lock(mutex_);
  observer_ = observer;
  if (observer_ != nullptr) observer_->observing(card_);
}

CardId CardSlot::card() const {
  const platform::MutexLock lock(mutex_);
  return card_;
}

Outcome CardSlot::perform(const Command& command, CardId card) {
  platform::SecretBytes response = callTraced(command);
  const platform::MutexLock lock(mutex_);
  if (response.size() == 0 || card_ != card) return {Outcome::Result::kNoAnswer};
  if (command.kind != Command::Kind::kTransmit) atr_ = response.get();
  return {Outcome::Result::kAnswered, std::move(response), card};
}

platform::SecretBytes CardSlot::callTraced(const Command& command) {
  const bool transmits = command.kind == Command::Kind::kTransmit;
  const bool told = trace_ != nullptr && trace_->wanted();
  TraceRecord record;
  if (told) {
    record.kind = kindOf(command.kind);
    record.time = TraceRecord::Clock::now();
  }
  const SteadyClock::time_point begin = told ? SteadyClock::now() : SteadyClock::time_point();
  platform::SecretBytes response(call(command));
  if (transmits) apdus_.fetch_add(1, std::memory_order_relaxed);
  if (response.size() == 0) unanswered_.fetch_add(1, std::memory_order_relaxed);
  if (!told) {
    secrets_.miss();
    return response;
  }
  record.duration =
      std::chrono::duration_cast<std::chrono::microseconds>(SteadyClock::now() - begin);
  record.command = command.apdu;
  record.response = response;
  if (transmits) record.hidden = secrets_.look(command.apdu.get(), response.get());
  trace_->take(record);
  return response;
}

void CardSlot::tell(TraceRecord::Kind kind) {
  if (trace_ == nullptr || !trace_->wanted()) return;
  TraceRecord record;
  record.kind = kind;
  trace_->take(record);
}

Bytes CardSlot::call(const Command& command) {
  switch (command.kind) {
    case Command::Kind::kAtrWithReset:
      return backend_.reset();
    case Command::Kind::kAtr:
      return backend_.atr();
    case Command::Kind::kTransmit:
      break;
  }
  return backend_.transmit(command.apdu.get());
}

void CardSlot::ready() {
  backend_.ready();
  tell(TraceRecord::Kind::kReady);
}

std::string CardSlot::insert() { return backend_.insert(); }

std::string CardSlot::remove() { return backend_.remove(); }

CardSlot::Status CardSlot::status() const {
  const platform::MutexLock lock(mutex_);
  return {card_, atr_, apdus_, unanswered_};
}

void CardSlot::cardInserted() {
  const platform::MutexLock lock(mutex_);
  if (card_ != kNoCard) return;
  card_ = ++lastCard_;
  atr_.clear();
  tell(TraceRecord::Kind::kInsert);
  if (observer_ != nullptr) observer_->cardArrived(card_);
}

void CardSlot::cardRemoved() {
  {
    const platform::MutexLock lock(mutex_);
    if (card_ == kNoCard) return;
    card_ = kNoCard;
    atr_.clear();
    tell(TraceRecord::Kind::kRemove);
    if (observer_ != nullptr) observer_->cardDeparted();
  }
  if (onDeparture_) onDeparture_();
}

}  // namespace zelta::agent
