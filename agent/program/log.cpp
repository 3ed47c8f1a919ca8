#include "agent/program/log.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <ctime>
#include <utility>

namespace zelta::agent {

const char* severityName(Severity severity) {
  switch (severity) {
    case Severity::kError:
      return "error";
    case Severity::kWarning:
      return "warning";
    case Severity::kInfo:
      return "info";
    case Severity::kDebug:
      break;
  }
  return "debug";
}

Log::Log(Severity least, Sink sink) : least_(least), sink_(std::move(sink)) {}

void Log::write(Severity severity, const std::string& line) {
  if (!wants(severity)) return;
  const platform::MutexLock lock(mutex_);
  sink_(severity, line);
}

std::string timeStamp() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
  const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(seconds), milliseconds % 1000);
}

}  // namespace zelta::agent
