#include "tests/doubles/agent/held_card.h"

#include <stdexcept>

namespace zelta::test {

using platform::MutexLock;

Bytes heldAnswer(std::uint8_t number) { return {number, 0x90, 0x00}; }

Bytes heldAtr() { return {0x3B, 0x00}; }

void HeldCard::hold() {
  const MutexLock lock(mutex_);
  held_ = true;
}

void HeldCard::letGo() {
  const MutexLock lock(mutex_);
  held_ = false;
  changed_.notifyAll();
}

void HeldCard::waitUntilBusy() {
  MutexLock lock(mutex_);
  changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return busy_; });
}

bool HeldCard::isBusy() {
  const MutexLock lock(mutex_);
  return busy_;
}

void HeldCard::setMute(bool mute) {
  const MutexLock lock(mutex_);
  mute_ = mute;
}

void HeldCard::breakDown() {
  const MutexLock lock(mutex_);
  broken_ = true;
}

int HeldCard::resets() {
  const MutexLock lock(mutex_);
  return resets_;
}

int HeldCard::readyNotices() {
  const MutexLock lock(mutex_);
  return readyNotices_;
}

void HeldCard::start(agent::CardListener& listener) {
  listener_ = &listener;
  bool in = false;
  {
    const MutexLock lock(mutex_);
    in = in_;
  }
  if (in) listener.cardInserted();
}

bool HeldCard::work() {
  MutexLock lock(mutex_);
  busy_ = true;
  changed_.notifyAll();
  changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return !held_ || interrupted_; });
  busy_ = false;
  return in_ && !mute_;
}

Bytes HeldCard::reset() {
  if (!work()) return {};
  const MutexLock lock(mutex_);
  ++resets_;
  return heldAtr();
}

Bytes HeldCard::atr() { return work() ? heldAtr() : Bytes(); }

Bytes HeldCard::transmit(const Bytes&) {
  if (!work()) return {};
  const MutexLock lock(mutex_);
  if (broken_) throw std::runtime_error("the card is broken");
  return heldAnswer(++answers_);
}

void HeldCard::ready() {
  const MutexLock lock(mutex_);
  ++readyNotices_;
}

std::string HeldCard::insert() {
  {
    const MutexLock lock(mutex_);
    if (in_) return "a card is in already";
    in_ = true;
  }
  listener_->cardInserted();
  return {};
}

std::string HeldCard::remove() {
  {
    const MutexLock lock(mutex_);
    if (!in_) return "no card is in";
  }
  listener_->cardRemoved();
  const MutexLock lock(mutex_);
  in_ = false;
  return {};
}

void HeldCard::interrupt() {
  const MutexLock lock(mutex_);
  interrupted_ = true;
  changed_.notifyAll();
}

}  // namespace zelta::test
