#include "agent/card_slot.h"

#include <utility>

namespace zelta::agent {

CardSlot::CardSlot(CardBackend& backend, OnFailure onFailure)
    : backend_(backend), onFailure_(std::move(onFailure)) {}

CardSlot::~CardSlot() { stop(); }

void CardSlot::start() {
  backend_.start(*this);
  started_ = true;
  try {
    worker_ = std::thread([this] { guarded(onFailure_, [this] { work(); }); });
  } catch (...) {
    stop();
    throw;
  }
}

void CardSlot::stop() {
  if (!started_) return;
  started_ = false;
  {
    platform::MutexLock lock(mutex_);
    ending_ = true;
    aborted_ = true;
    changed_.notifyAll();
  }
  backend_.interrupt();
  if (worker_.joinable()) worker_.join();
  backend_.stop();
}

void CardSlot::observe(Observer* observer) {
  platform::MutexLock lock(mutex_);
  observer_ = observer;
  if (observer_ != nullptr) observer_->observing(card_);
}

void CardSlot::setAborted(bool aborted) {
  platform::MutexLock lock(mutex_);
  aborted_ = aborted || ending_;
  changed_.notifyAll();
}

void CardSlot::ready() { backend_.ready(); }

std::string CardSlot::insert() { return backend_.insert(); }

std::string CardSlot::remove() { return backend_.remove(); }

CardSlot::Status CardSlot::status() const {
  platform::MutexLock lock(mutex_);
  return {card_, atr_};
}

void CardSlot::cardInserted() {
  platform::MutexLock lock(mutex_);
  if (card_ != kNoCard) return;
  card_ = ++lastCard_;
  atr_.clear();
  if (observer_ != nullptr) observer_->cardArrived(card_);
  changed_.notifyAll();
}

void CardSlot::cardRemoved() {
  platform::MutexLock lock(mutex_);
  if (card_ == kNoCard) return;
  card_ = kNoCard;
  atr_.clear();
  if (observer_ != nullptr) observer_->cardDeparted();
  changed_.notifyAll();
}

bool CardSlot::waitForWorker(platform::MutexLock& lock, CardId card,
                             SteadyClock::time_point deadline) {
  const auto decided = [this, card]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return !busy_ || aborted_ || card_ != card;
  };
  const bool inTime = changed_.waitFor(lock, deadline - SteadyClock::now(), decided);
  return inTime && !busy_ && !aborted_ && card_ == card;
}

CardSlot::Result CardSlot::whyNot(CardId card) const {
  if (aborted_) return Result::Aborted;
  return card_ == card ? Result::Late : Result::NoCard;
}

CardSlot::Answer CardSlot::ask(Operation operation, const Bytes& command,
                               SteadyClock::time_point deadline) {
  platform::MutexLock lock(mutex_);
  if (aborted_) return {Result::Aborted, {}};
  const CardId card = card_;
  if (card == kNoCard) return {Result::NoCard, {}};
  if (!waitForWorker(lock, card, deadline)) return {whyNot(card), {}};
  busy_ = true;
  pending_ = true;
  operation_ = operation;
  command_ = command;
  changed_.notifyAll();
  if (!waitForWorker(lock, card, deadline)) return {whyNot(card), {}};
  Bytes response = std::move(response_);
  response_.clear();
  if (response.empty()) return {Result::NoCard, {}};
  if (operation != Operation::Transmit) atr_ = response;
  return {Result::Answered, std::move(response), card};
}

void CardSlot::work() {
  platform::MutexLock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return pending_ || ending_; });
    if (ending_) return;
    pending_ = false;
    const Operation operation = operation_;
    const Bytes command = std::move(command_);
    lock.unlock();
    Bytes response = perform(operation, command);
    lock.lock();
    response_ = std::move(response);
    busy_ = false;
    changed_.notifyAll();
  }
}

Bytes CardSlot::perform(Operation operation, const Bytes& command) {
  switch (operation) {
    case Operation::Reset:
      return backend_.reset();
    case Operation::Atr:
      return backend_.atr();
    case Operation::Transmit:
      break;
  }
  return backend_.transmit(command);
}

}  // namespace zelta::agent
