#include "pcsc/card_presence.h"

namespace zelta::pcsc {

using platform::MutexLock;

void CardPresence::expectCard() {
  const MutexLock lock(mutex_);
  leftEarly_ = false;
}

bool CardPresence::cardEntered() {
  const MutexLock lock(mutex_);
  if (leftEarly_) return false;
  in_ = true;
  ++number_;
  cardTold_ = false;
  cardSeenBy_ = std::thread::id();
  changed_.notifyAll();
  return true;
}

void CardPresence::cardLeft() {
  const MutexLock lock(mutex_);
  if (!in_) {
    leftEarly_ = true;
    return;
  }
  const bool wasShown = shown();
  in_ = false;
  if (wasShown) latchRemoval();
}

void CardPresence::latchRemoval() {
  removal_ = Removal::kUntold;
  changed_.notifyAll();
}

CardNumber CardPresence::card() const {
  const MutexLock lock(mutex_);
  return shown() ? number_ : kNoCard;
}

CardNumber CardPresence::reportCard() {
  const MutexLock lock(mutex_);
  if (!shown()) return kNoCard;
  cardSeenBy_ = std::this_thread::get_id();
  return number_;
}

void CardPresence::cycle(CardNumber card) {
  const MutexLock lock(mutex_);
  if (shown() && number_ == card) latchRemoval();
}

bool CardPresence::untoldCard() const {
  return shown() && !cardTold_ && cardSeenBy_ != std::this_thread::get_id();
}

void CardPresence::awaitChange(std::chrono::milliseconds limit) {
  MutexLock lock(mutex_);
  if (removal_ == Removal::kTold) {
    removal_ = Removal::kNone;
    // A card that is in by now entered after the removal, or is shown once more.
    if (in_) {
      ++number_;
      cardTold_ = false;
      cardSeenBy_ = std::thread::id();
    }
  }
  changed_.waitFor(lock, limit, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return closed_ || stopped_ || removal_ == Removal::kUntold || untoldCard();
  });
  stopped_ = false;
  if (removal_ == Removal::kUntold) removal_ = Removal::kTold;
  if (shown()) cardTold_ = true;
}

void CardPresence::stopAwaiting() {
  const MutexLock lock(mutex_);
  stopped_ = true;
  changed_.notifyAll();
}

void CardPresence::close() {
  const MutexLock lock(mutex_);
  closed_ = true;
  changed_.notifyAll();
}

}  // namespace zelta::pcsc
