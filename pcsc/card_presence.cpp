#include "pcsc/card_presence.h"

#include <algorithm>

namespace zelta::pcsc {

using platform::MutexLock;

void CardPresence::notifyChange() {
  ++changes_;
  condition_.notifyAll();
}

void CardPresence::renewCard() {
  ++number_;
  cardTold_ = false;
  cardSeenBy_ = std::thread::id();
}

void CardPresence::latchRemoval() {
  removal_ = Removal::kUntold;
  hiddenSince_ = Clock::now();
  notifyChange();
}

// --- The driver's side ---

void CardPresence::expectCard() {
  const MutexLock lock(mutex_);
  leftEarly_ = false;
}

bool CardPresence::cardEntered() {
  const MutexLock lock(mutex_);
  if (leftEarly_) return false;
  in_ = true;
  hiddenSince_ = Clock::now();
  // A call that found no card is about to say so.
  if (removal_ == Removal::kNone && uses_ != 0) removal_ = Removal::kSettling;
  renewCard();
  notifyChange();
  return true;
}

void CardPresence::cardLeft() noexcept {
  const MutexLock lock(mutex_);
  const bool wasShown = shown();
  leftEarly_ = !in_;
  in_ = false;
  if (wasShown) latchRemoval();
}

// --- pcscd's side ---

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

void CardPresence::noteRefusal() {
  const MutexLock lock(mutex_);
  settled_ = Clock::now() + kSettlingTime;
  if (removal_ == Removal::kNone && !in_) removal_ = Removal::kSettling;
}

CardNumber CardPresence::beginUse() {
  const MutexLock lock(mutex_);
  ++uses_;
  return shown() ? number_ : kNoCard;
}

void CardPresence::endUse() noexcept {
  const MutexLock lock(mutex_);
  --uses_;
  if (uses_ == 0 && removal_ == Removal::kSettling) notifyChange();
}

bool CardPresence::isShown(CardNumber card) const {
  const MutexLock lock(mutex_);
  return shows(card);
}

void CardPresence::reinsert(CardNumber card) {
  const MutexLock lock(mutex_);
  if (shows(card)) latchRemoval();
}

CardPresence::Clock::time_point CardPresence::settlingEnd() const {
  return in_ ? std::min(settled_, hiddenSince_ + kLongestSettling) : settled_;
}

void CardPresence::settle() {
  if (removal_ != Removal::kSettling || uses_ != 0 || Clock::now() < settlingEnd()) return;
  removal_ = Removal::kNone;
  // If a card is in now, it entered after the removal or is shown once more.
  if (in_) renewCard();
}

bool CardPresence::hasNews() const {
  return closed_ || stopped_ || removal_ == Removal::kUntold ||
         (shown() && !cardTold_ && cardSeenBy_ != std::this_thread::get_id());
}

void CardPresence::awaitNews(MutexLock& lock, Clock::time_point end) {
  if (removal_ == Removal::kSettling && in_ && uses_ == 0) end = std::min(end, settlingEnd());
  condition_.waitFor(lock, end - Clock::now(),
                     [this, before = changes_]()
                         ZELTA_NO_THREAD_SAFETY_ANALYSIS { return changes_ != before; });
}

void CardPresence::awaitChange(std::chrono::milliseconds limit) {
  const Clock::time_point end = Clock::now() + limit;
  MutexLock lock(mutex_);
  if (removal_ == Removal::kTold) removal_ = Removal::kSettling;
  for (settle(); !hasNews() && Clock::now() < end; settle()) awaitNews(lock, end);
  stopped_ = false;
  if (removal_ == Removal::kUntold) removal_ = Removal::kTold;
  if (shown()) cardTold_ = true;
}

bool CardPresence::awaitCard(Clock::time_point deadline) {
  MutexLock lock(mutex_);
  return condition_.waitFor(lock, deadline - Clock::now(),
                            [this]()
                                ZELTA_NO_THREAD_SAFETY_ANALYSIS { return shown() || closed_; });
}

void CardPresence::stopAwaiting() {
  const MutexLock lock(mutex_);
  stopped_ = true;
  notifyChange();
}

void CardPresence::close() {
  const MutexLock lock(mutex_);
  closed_ = true;
  notifyChange();
}

}  // namespace zelta::pcsc
