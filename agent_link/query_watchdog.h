// Ends a query that takes too long: calls back once when its time is up, unless it is destroyed
// before.
//
// Ownership: on the stack of the query it guards. Owns one thread, which is joined by the
// destructor.
// Threads: the callback runs on the watchdog's thread with its mutex held, so that `timedOut` and
// the destructor wait until a callback that has begun is done. The callback must not call the
// watchdog.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

#include "platform/sync.h"

namespace zelta {

class QueryWatchdog {
 public:
  // How long a query may take.
  static constexpr std::chrono::milliseconds kQueryTime{5000};

  // Throws std::runtime_error ("Callback is null") for an empty callback, and std::system_error
  // where no thread can be started. The callback must not throw.
  explicit QueryWatchdog(std::function<void()> callback,
                         std::chrono::milliseconds time = kQueryTime);
  ~QueryWatchdog();
  QueryWatchdog(const QueryWatchdog&) = delete;
  QueryWatchdog& operator=(const QueryWatchdog&) = delete;

  bool timedOut();

 private:
  void run();

  platform::Mutex mutex_;
  bool armed_ ZELTA_GUARDED_BY(mutex_) = true;
  bool timedOut_ ZELTA_GUARDED_BY(mutex_) = false;
  platform::ConditionVariable condition_;
  const std::function<void()> callback_;
  const std::chrono::milliseconds time_;
  std::thread thread_;  // last: runs on all of the above
};

}  // namespace zelta
