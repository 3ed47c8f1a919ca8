// The thread that times the queries of one reader.
//
// Intentional: one thread is parked between the queries. One that each query starts and joins would
// cost several times what the exchange does.
//
// No query is overdue before a full limit has passed since it began. So a parked thread sleeps for
// one limit. Then, if a query has begun, it sleeps until that one's deadline, otherwise for one
// more limit. Beginning or ending a query wakes no thread.
//
// Ownership: the reader's queries; starts its thread with the first query, joins it on destruction.
// Threads: any, for one query at a time (`QueryWatchdog`). The mutex is held while a query's
// callback runs, so that the query cannot end during it.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

#include "platform/sync/sync.h"

namespace zelta {

class WatchdogThread {
 public:
  // `limit` is the longest time of a query.
  explicit WatchdogThread(std::chrono::milliseconds limit) : limit_(limit) {}
  ~WatchdogThread();
  WatchdogThread(const WatchdogThread&) = delete;
  WatchdogThread& operator=(const WatchdogThread&) = delete;

  // Call when a query begins. `callback` is called once if it does not end in time, and is not
  // copied. Throws std::system_error if the thread is not running and cannot be started.
  void arm(const std::function<void()>& callback) ZELTA_EXCLUDES(mutex_);
  // Whether the last query ran out of time before it ended.
  bool expired() ZELTA_EXCLUDES(mutex_);
  // Call when the query ends.
  void disarm() ZELTA_EXCLUDES(mutex_);

 private:
  using Clock = std::chrono::steady_clock;

  void run();

  const std::chrono::milliseconds limit_;
  platform::Mutex mutex_;
  platform::ConditionVariable stopped_;
  const std::function<void()>* callback_ ZELTA_GUARDED_BY(mutex_) = nullptr;  // of a query
  Clock::time_point deadline_ ZELTA_GUARDED_BY(mutex_);                       // of that query
  bool expired_ ZELTA_GUARDED_BY(mutex_) = false;
  bool stop_ ZELTA_GUARDED_BY(mutex_) = false;
  std::thread thread_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta
