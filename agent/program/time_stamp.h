// The agent's time stamps.
#pragma once

#include <string>

namespace zelta::agent {

// Now, in UTC: 2024-03-05T14:07:09.042Z.
std::string timeStamp();

}  // namespace zelta::agent
