#include "agent_link/exchange_turn.h"

#include <algorithm>

namespace zelta {

bool ExchangeTurn::take(std::chrono::milliseconds limit, const std::function<bool()>& endHolder) {
  platform::MutexLock lock(mutex_);
  const Ticket mine = ++lastTicket_;
  if (holder_ == kNobody) {
    holder_ = mine;
    return true;
  }
  waiting_.push_back(mine);
  if (passedOn_.waitFor(lock, limit,
                        [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return holder_ == mine; })) {
    return true;
  }
  const Ticket holder = holder_;
  lock.unlock();
  const bool ending = endHolder();
  lock.lock();
  if (ending) {
    passedOn_.waitFor(lock, kHandOver,
                      [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return holder_ != holder; });
  }
  if (holder_ == mine) return true;
  waiting_.erase(std::find(waiting_.begin(), waiting_.end(), mine));
  return false;
}

void ExchangeTurn::giveUp() {
  const platform::MutexLock lock(mutex_);
  if (waiting_.empty()) {
    holder_ = kNobody;
    return;
  }
  holder_ = waiting_.front();
  waiting_.erase(waiting_.begin());
  passedOn_.notifyAll();
}

}  // namespace zelta
