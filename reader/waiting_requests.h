// The requests that wait in a reader for a card to come or to go, and the count of these events.
//
// A presence request is queued here once the agent has answered that it has to wait. A card event
// that arrives between the question and the queueing does not find the request; a `Question`
// reveals such an event (docs/threads.md).
//
// Ownership: the reader's. The device outlives it. No reference is held on a request.
//
// Threads: methods that need the device lock say so. `any` may be called without it; its result is
// then a hint. Adding an insertion request takes the request list mutex and wakes the thread in
// `awaitInsertionRequest`.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "driver/request/reader_device.h"
#include "platform/sync/sync.h"
#include "reader/pending_requests.h"

namespace zelta {

// What a request waits for. A card whose agent is lost counts as removed.
enum class CardEvent : std::uint8_t { kInserted, kRemoved };

class WaitingRequests {
 public:
  // Made by a request's handler before it asks the agent whether the request has to wait, and kept
  // until the request is completed or queued.
  class Question {
   public:
    Question(WaitingRequests& waiting, CardEvent awaited);
    ~Question();
    Question(const Question&) = delete;
    Question& operator=(const Question&) = delete;

    // Whether the event has come since.
    bool overtaken() const;

   private:
    std::atomic<int>& asked_;
    const std::atomic<std::uint64_t>& count_;
    const std::uint64_t before_;
  };

  explicit WaitingRequests(ReaderDevice& device) : device_(device) {}
  WaitingRequests(const WaitingRequests&) = delete;
  WaitingRequests& operator=(const WaitingRequests&) = delete;

  platform::CriticalSection& deviceLock() ZELTA_RETURN_CAPABILITY(device_.deviceLock()) {
    return device_.deviceLock();
  }
  // Tells the compiler that the caller holds the device lock by another name than `deviceLock`.
  void assumeDeviceLock() ZELTA_ASSERT_CAPABILITY(device_.deviceLock()) {}
  // The request list mutex.
  platform::Mutex& mutex() ZELTA_RETURN_CAPABILITY(mutex_) { return mutex_; }

  // Whether a request waits for the event.
  bool any(CardEvent awaited) const;
  // True also while a request is asking the agent whether it must wait. Call after `note`.
  bool awaited(CardEvent event) const ZELTA_REQUIRES(device_.deviceLock());
  // Throws std::bad_alloc, and leaves everything as it was, if there is no memory.
  void add(CardEvent awaited, IoRequest& request) ZELTA_REQUIRES(device_.deviceLock());
  // Takes a request out without completing it; false if it does not wait for the event.
  bool remove(CardEvent awaited, const IoRequest& request) ZELTA_REQUIRES(device_.deviceLock());
  // Completes the requests that wait for the event, newest first, with the status and no output. A
  // request that is being cancelled only leaves its list: its cancel callback completes it.
  void completeAll(CardEvent awaited, framework::HRESULT status)
      ZELTA_REQUIRES(device_.deviceLock());
  // Completes only the newest of them, as cancelled and without a byte count.
  void cancelNewest(CardEvent awaited) ZELTA_REQUIRES(device_.deviceLock());

  // Counts an event.
  void note(CardEvent event) ZELTA_REQUIRES(device_.deviceLock());

  // Blocks until an insertion request waits, `stopped` (called with the mutex held) returns true,
  // or `limit` passes (false). The request may already be cancelled on return.
  template <typename Stopped>
  bool awaitInsertionRequest(platform::MutexLock& lock, std::chrono::milliseconds limit,
                             Stopped stopped) ZELTA_REQUIRES(mutex_) {
    return insertionRequestCame_.waitFor(lock, limit,
                                         [&] { return stopped() || any(CardEvent::kInserted); });
  }
  // Makes `awaitInsertionRequest` check `stopped` again.
  void wakeInsertionWait() ZELTA_EXCLUDES(mutex_);

 private:
  PendingRequests& list(CardEvent awaited) ZELTA_REQUIRES(device_.deviceLock()) {
    return lists_[static_cast<std::size_t>(awaited)];
  }

  ReaderDevice& device_;
  std::array<PendingRequests, 2> lists_ ZELTA_GUARDED_BY(device_.deviceLock());
  std::array<std::atomic<std::uint64_t>, 2> counts_{};  // of events; written under the device lock
  std::array<std::atomic<int>, 2> asked_{};             // questions under way
  // Held as well while an insertion request is added.
  platform::Mutex mutex_ ZELTA_ACQUIRED_AFTER(device_.deviceLock());
  platform::ConditionVariable insertionRequestCame_;
};

}  // namespace zelta
