// Requests that wait in the driver for a card to come or to go, oldest first.
//
// The list holds no reference on its requests and does not own them: the framework does, until
// they are completed. The code that completes a request takes it out of its list.
//
// Threads: everything but `empty` is called with the device lock held. `empty` may be read without
// a lock; its result is then only a hint.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <vector>

#include "driver/request/io_request.h"

namespace zelta {

class PendingRequests {
 public:
  bool empty() const { return size() == 0; }
  std::size_t size() const { return count_.load(std::memory_order_relaxed); }

  // Throws std::bad_alloc, and leaves the list as it was, if there is no memory.
  void append(IoRequest* request) {
    requests_.push_back(request);
    publishCount();
  }

  // The request that came last; null if the list is empty. It stays in the list.
  IoRequest* newest() const { return requests_.empty() ? nullptr : requests_.back(); }

  // Takes the first entry equal to the request out; the order of the rest is kept. False if
  // there is none.
  bool remove(const IoRequest* request) {
    const auto found = std::find(requests_.begin(), requests_.end(), request);
    if (found == requests_.end()) return false;
    requests_.erase(found);
    publishCount();
    return true;
  }

 private:
  void publishCount() { count_.store(requests_.size(), std::memory_order_relaxed); }

  std::vector<IoRequest*> requests_;
  std::atomic<std::size_t> count_{0};
};

}  // namespace zelta
