#include "agent_link/query_watchdog.h"

#include <stdexcept>
#include <utility>

namespace zelta {

QueryWatchdog::QueryWatchdog(WatchdogThread& thread, std::function<void()> callback)
    : thread_(thread), callback_(std::move(callback)) {
  if (!callback_) throw std::runtime_error("Callback is null");
  thread_.arm(callback_);
}

QueryWatchdog::~QueryWatchdog() { thread_.disarm(); }

}  // namespace zelta
