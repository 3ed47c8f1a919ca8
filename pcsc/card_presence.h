// Decides when pcscd sees the card in one reader, between the driver's presence requests on one
// side and pcscd's calls on the other.
//
// Once the driver reports a removal, pcscd is told "no card" until it has dealt with it: until it
// enters the polling function again after that function returned for the removal, or was not
// running. Only then is a new card shown, so that no swap is missed however quick, and no half of
// pcscd sees the new card while the other still works with the old one.
//
// After a call was refused because no card was in, that thread of pcscd records an empty reader,
// without holding a lock. If a card were shown before that, the reader would stay empty for pcscd.
// So no card is shown within `kSettlingTime` of such a refusal; repeated refusals hide it for
// `kLongestSettling` at most.
//
// While a call that works with a removed card has not returned, no other card is shown.
//
// The polling thread and the clients' threads are tracked separately. pcscd's polling thread keeps
// its own copy of the reader's state, and clients' threads ask for the presence before each
// power-up and reset. If the polling call waited because a client's thread had seen the card, pcscd
// would miss the insertion. If it returned although the polling thread knew of the card, pcscd
// would power the card down at once.
//
// Threads: any. The driver's side may be called under the driver's locks. Nothing here needs
// memory.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <thread>

#include "platform/sync/sync.h"

namespace zelta::pcsc {

// Identifies a card that pcscd was shown. A card that is shown again after a removal gets a new
// number.
using CardNumber = std::uint64_t;
inline constexpr CardNumber kNoCard = 0;

class CardPresence {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::milliseconds kSettlingTime{200};
  static constexpr std::chrono::milliseconds kLongestSettling{1000};

  // --- The driver's side ---

  // Call before making a request that ends with the next card's removal.
  void expectCard() ZELTA_EXCLUDES(mutex_);
  // Call when that request waits in the driver: shows the card. False if the card has already left;
  // it
  // was never shown then.
  bool cardEntered() ZELTA_EXCLUDES(mutex_);
  // Call when that request has ended.
  void cardLeft() noexcept ZELTA_EXCLUDES(mutex_);

  // --- pcscd's side ---

  // The card that pcscd may use now.
  CardNumber card() const ZELTA_EXCLUDES(mutex_);
  // The same, for pcscd's own presence check: its polling thread then need not be told of this
  // card.
  CardNumber reportCard() ZELTA_EXCLUDES(mutex_);
  // Call before answering with "no card", or with a failure of the card.
  void noteRefusal() ZELTA_EXCLUDES(mutex_);
  // Begins a call that works with the card: the card shown, or `kNoCard`. Exactly one `endUse`
  // follows either, after `noteRefusal` if that is called.
  CardNumber beginUse() ZELTA_EXCLUDES(mutex_);
  void endUse() noexcept ZELTA_EXCLUDES(mutex_);
  // False if `card` is no longer the card shown.
  bool isShown(CardNumber card) const ZELTA_EXCLUDES(mutex_);
  // Makes pcscd see `card` leave and, if it is still in, enter once more. Does nothing if it is no
  // longer the card shown.
  void reinsert(CardNumber card) ZELTA_EXCLUDES(mutex_);
  // The polling function: blocks until there is a change that the caller has not been told of, it
  // is stopped, or the time has run out.
  void awaitChange(std::chrono::milliseconds limit) ZELTA_EXCLUDES(mutex_);
  // Waits until a card is shown or this is closed; false if neither happens by `deadline`. The
  // polling function is still told of the card.
  [[nodiscard]] bool awaitCard(Clock::time_point deadline) ZELTA_EXCLUDES(mutex_);
  // Ends the current `awaitChange`, or else the next one.
  void stopAwaiting() ZELTA_EXCLUDES(mutex_);
  // Ends every `awaitChange`, current and later; no card is shown any more.
  void close() ZELTA_EXCLUDES(mutex_);

 private:
  enum class Removal {
    kNone,
    kUntold,    // the polling function has not returned for it yet
    kTold,      // it has; the next time it is entered pcscd has dealt with the removal
    kSettling,  // pcscd has; no card is shown before `settlingEnd`, nor while the old one is used
  };

  void notifyChange() ZELTA_REQUIRES(mutex_);
  void latchRemoval() ZELTA_REQUIRES(mutex_);
  void settle() ZELTA_REQUIRES(mutex_);
  Clock::time_point settlingEnd() const ZELTA_REQUIRES(mutex_);
  void renewCard() ZELTA_REQUIRES(mutex_);
  bool shown() const ZELTA_REQUIRES(mutex_) {
    return in_ && removal_ == Removal::kNone && !closed_;
  }
  bool shows(CardNumber card) const ZELTA_REQUIRES(mutex_) { return shown() && number_ == card; }
  bool hasNews() const ZELTA_REQUIRES(mutex_);
  void awaitNews(platform::MutexLock& lock, Clock::time_point end) ZELTA_REQUIRES(mutex_);

  mutable platform::Mutex mutex_;
  platform::ConditionVariable condition_;               // for all waiters
  std::uint64_t changes_ ZELTA_GUARDED_BY(mutex_) = 0;  // so far
  bool in_ ZELTA_GUARDED_BY(mutex_) = false;            // as the driver has it
  bool leftEarly_ ZELTA_GUARDED_BY(mutex_) = false;     // before it was shown
  Removal removal_ ZELTA_GUARDED_BY(mutex_) = Removal::kNone;
  Clock::time_point settled_ ZELTA_GUARDED_BY(mutex_);      // after the latest refusal
  Clock::time_point hiddenSince_ ZELTA_GUARDED_BY(mutex_);  // the card that is in
  std::size_t uses_ ZELTA_GUARDED_BY(mutex_) = 0;           // calls
  CardNumber number_ ZELTA_GUARDED_BY(mutex_) = kNoCard;
  bool cardTold_ ZELTA_GUARDED_BY(mutex_) = false;       // by the polling function
  std::thread::id cardSeenBy_ ZELTA_GUARDED_BY(mutex_);  // the latest to ask and see it
  bool stopped_ ZELTA_GUARDED_BY(mutex_) = false;
  bool closed_ ZELTA_GUARDED_BY(mutex_) = false;
};

// One call that works with the card, for a scope. Does not own the presence.
class CardUse {
 public:
  explicit CardUse(CardPresence& presence) : presence_(presence), card_(presence.beginUse()) {}
  ~CardUse() { presence_.endUse(); }
  CardUse(const CardUse&) = delete;
  CardUse& operator=(const CardUse&) = delete;

  // The card that was shown at the beginning, or `kNoCard`.
  CardNumber card() const { return card_; }

 private:
  CardPresence& presence_;
  const CardNumber card_;
};

}  // namespace zelta::pcsc
