#include "agent/card/card_slot.h"

#include <utility>

#include "contract/bytes.h"

namespace zelta::agent {

CardSlot::CardSlot(CardBackend& backend, std::function<void()> onDeparture, OnFailure onFailure)
    : backend_(backend), onDeparture_(std::move(onDeparture)), onFailure_(std::move(onFailure)) {}

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
  platform::SecretBytes response(call(command));
  const platform::MutexLock lock(mutex_);
  if (response.size() == 0 || card_ != card) return {Outcome::Result::kNoAnswer};
  if (command.kind != Command::Kind::kTransmit) atr_ = response.get();
  return {Outcome::Result::kAnswered, std::move(response), card};
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

void CardSlot::ready() { backend_.ready(); }

std::string CardSlot::insert() { return backend_.insert(); }

std::string CardSlot::remove() { return backend_.remove(); }

CardSlot::Status CardSlot::status() const {
  const platform::MutexLock lock(mutex_);
  return {card_, atr_};
}

void CardSlot::cardInserted() {
  const platform::MutexLock lock(mutex_);
  if (card_ != kNoCard) return;
  card_ = ++lastCard_;
  atr_.clear();
  if (observer_ != nullptr) observer_->cardArrived(card_);
}

void CardSlot::cardRemoved() {
  {
    const platform::MutexLock lock(mutex_);
    if (card_ == kNoCard) return;
    card_ = kNoCard;
    atr_.clear();
    if (observer_ != nullptr) observer_->cardDeparted();
  }
  if (onDeparture_) onDeparture_();
}

}  // namespace zelta::agent
