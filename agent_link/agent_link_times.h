// The reader's time limits.
#pragma once

#include <chrono>

#include "contract/wire.h"

namespace zelta {

struct AgentLinkTimes {
  // For a query's answer, and again for its turn before that.
  std::chrono::milliseconds query = kQueryTime;
  // For an insertion request to come before the agent is accepted.
  std::chrono::milliseconds insertRequest{10000};
  // Between a failed connect and the next.
  std::chrono::milliseconds reconnect{100};
};

}  // namespace zelta
