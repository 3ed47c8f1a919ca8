#include "agent_link/exchange_turn.h"

#include <algorithm>
#include <utility>

namespace zelta {

namespace {

// The request that the calling thread handles, or null.
thread_local ExchangeTurn::RequestScope* handledRequest = nullptr;

}  // namespace

ExchangeTurn::RequestScope::RequestScope(Clock::time_point begun) : waitingSince_(begun) {
  if (handledRequest == nullptr) handledRequest = this;
}

ExchangeTurn::RequestScope::~RequestScope() {
  if (kept_ != nullptr) kept_->passOn();
  if (handledRequest == this) handledRequest = nullptr;
}

std::chrono::milliseconds ExchangeTurn::RequestScope::beginWait(std::chrono::milliseconds limit) {
  const auto now = Clock::now();
  if (kept_ != nullptr) {
    std::exchange(kept_, nullptr)->passOn();
    waitingSince_ = now;
  }
  const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(now - waitingSince_);
  return std::max(limit - waited, std::chrono::milliseconds(0));
}

bool ExchangeTurn::take(std::chrono::milliseconds limit, const std::function<bool()>& endHolder) {
  if (handledRequest != nullptr) limit = handledRequest->beginWait(limit);
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
  if (handledRequest != nullptr) {
    handledRequest->kept_ = this;
  } else {
    passOn();
  }
}

void ExchangeTurn::passOn() {
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
