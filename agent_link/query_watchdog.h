// Ends a query that takes too long: calls back once when its time is up, unless it is destroyed
// before. The reader's watchdog thread does the waiting; it is parked between queries.
//
// Ownership: on the stack of the query that it guards. The thread outlives it, and guards one query
// at a time.
// Threads: the callback runs on the watchdog thread with its mutex held, so that `timedOut` and the
// destructor wait until a callback that has begun is done. The callback must not call the watchdog.
#pragma once

#include <functional>

#include "agent_link/watchdog_thread.h"

namespace zelta {

class QueryWatchdog {
 public:
  // Throws std::runtime_error ("Callback is null") for an empty callback, and std::system_error
  // if the thread is not running and cannot be started. The callback must not throw.
  QueryWatchdog(WatchdogThread& thread, std::function<void()> callback);
  ~QueryWatchdog();
  QueryWatchdog(const QueryWatchdog&) = delete;
  QueryWatchdog& operator=(const QueryWatchdog&) = delete;

  bool timedOut() { return thread_.expired(); }

 private:
  WatchdogThread& thread_;
  const std::function<void()> callback_;
};

}  // namespace zelta
