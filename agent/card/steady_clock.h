// The clock of every time limit.
#pragma once

#include <chrono>

namespace zelta::agent {

using SteadyClock = std::chrono::steady_clock;

}  // namespace zelta::agent
