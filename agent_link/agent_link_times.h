// The reader's time limits.
#pragma once

#include <chrono>

#include "contract/wire.h"

namespace zelta {

struct AgentLinkTimes {
  // For the answer to a query, and before that for the query's turn.
  std::chrono::milliseconds query = kQueryTime;
  // For somebody to wait for a card's insertion, before the agent is accepted.
  std::chrono::milliseconds insertRequest{10000};
  // Between a failed connect and the next.
  std::chrono::milliseconds reconnect{100};
};

}  // namespace zelta
