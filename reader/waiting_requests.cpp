#include "reader/waiting_requests.h"

#include "contract/status.h"

namespace zelta {

namespace {

// A reference on a waiting request while it is completed and taken out of its list.
class RequestReference {
 public:
  explicit RequestReference(IoRequest& request) : request_(request) { request_.addRef(); }
  ~RequestReference() { request_.release(); }
  RequestReference(const RequestReference&) = delete;
  RequestReference& operator=(const RequestReference&) = delete;

 private:
  IoRequest& request_;
};

template <typename Complete>
void completeNewest(PendingRequests& pending, Complete complete) {
  IoRequest* const request = pending.newest();
  if (request == nullptr) return;
  const RequestReference reference(*request);
  if (framework::succeeded(request->unmarkCancelable())) complete(*request);
  pending.remove(request);
}

}  // namespace

// Either the event's handler finds the question, or the question finds the event: each writes
// before it reads, in the one order of these atomics.
WaitingRequests::Question::Question(WaitingRequests& waiting, CardEvent awaited)
    : asked_(waiting.asked_[static_cast<std::size_t>(awaited)]),
      count_(waiting.counts_[static_cast<std::size_t>(awaited)]),
      before_((++asked_, count_.load())) {}

WaitingRequests::Question::~Question() { --asked_; }

bool WaitingRequests::Question::overtaken() const { return count_.load() != before_; }

// No lock is needed: the list's count is an atomic.
bool WaitingRequests::any(CardEvent awaited) const ZELTA_NO_THREAD_SAFETY_ANALYSIS {
  return !lists_[static_cast<std::size_t>(awaited)].empty();
}

bool WaitingRequests::awaited(CardEvent event) const {
  return any(event) || asked_[static_cast<std::size_t>(event)].load() > 0;
}

void WaitingRequests::add(CardEvent awaited, IoRequest& request) {
  if (awaited == CardEvent::kRemoved) {
    list(awaited).append(&request);
    return;
  }
  {
    const platform::MutexLock lock(mutex_);
    list(awaited).append(&request);
  }
  insertionRequestCame_.notifyAll();
}

bool WaitingRequests::remove(CardEvent awaited, const IoRequest& request) {
  return list(awaited).remove(&request);
}

void WaitingRequests::completeAll(CardEvent awaited, framework::HRESULT status) {
  PendingRequests& pending = list(awaited);
  while (!pending.empty()) {
    completeNewest(pending,
                   [status](IoRequest& request) { request.completeWithInformation(status, 0); });
  }
}

void WaitingRequests::cancelNewest(CardEvent awaited) {
  completeNewest(list(awaited), [](IoRequest& request) { request.complete(status::kCancelled); });
}

void WaitingRequests::note(CardEvent event) { ++counts_[static_cast<std::size_t>(event)]; }

void WaitingRequests::wakeInsertionWait() {
  {
    // A thread that found nothing to wake for under this mutex is waiting by now.
    const platform::MutexLock lock(mutex_);
  }
  insertionRequestCame_.notifyAll();
}

}  // namespace zelta
