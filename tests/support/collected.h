// Collects entries from other threads, in order, for a test to check and to wait for. Any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <utility>
#include <vector>

#include "platform/sync/sync.h"

namespace zelta::test {

template <typename Entry>
class Collected {
 public:
  void add(Entry entry) {
    const platform::MutexLock lock(mutex_);
    entries_.push_back(std::move(entry));
    added_.notifyAll();
  }
  std::vector<Entry> all() const {
    const platform::MutexLock lock(mutex_);
    return entries_;
  }
  // Takes all entries.
  std::vector<Entry> take() {
    const platform::MutexLock lock(mutex_);
    return std::exchange(entries_, {});
  }
  // Blocks until there are `count` items, then returns them all.
  std::vector<Entry> await(std::size_t count) const {
    return awaitUntil([count](const std::vector<Entry>& all) { return all.size() >= count; });
  }
  // Blocks until the predicate holds for all items, then returns them.
  template <typename Predicate>
  std::vector<Entry> awaitUntil(Predicate predicate) const {
    platform::MutexLock lock(mutex_);
    added_.wait(lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return predicate(entries_); });
    return entries_;
  }
  // False if there are fewer when `limit` has passed.
  bool waitFor(std::size_t count, std::chrono::milliseconds limit) const {
    platform::MutexLock lock(mutex_);
    return added_.waitFor(
        lock, limit, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return entries_.size() >= count; });
  }

 private:
  mutable platform::Mutex mutex_;
  mutable platform::ConditionVariable added_;
  std::vector<Entry> entries_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::test
