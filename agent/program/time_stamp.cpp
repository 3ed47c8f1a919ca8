#include "agent/program/time_stamp.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <ctime>

namespace zelta::agent {

std::string timeStamp() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
  const std::time_t seconds = static_cast<std::time_t>(milliseconds / 1000);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(seconds), milliseconds % 1000);
}

}  // namespace zelta::agent
