#include "agent/program/log.h"

#include <utility>

namespace zelta::agent {

const char* levelName(LogLevel level) {
  switch (level) {
    case LogLevel::kError:
      return "error";
    case LogLevel::kWarning:
      return "warning";
    case LogLevel::kInfo:
      return "info";
    case LogLevel::kDebug:
      break;
  }
  return "debug";
}

Log::Log(LogLevel least, Sink sink) : least_(least), sink_(std::move(sink)) {}

void Log::write(LogLevel level, const std::string& line) {
  if (!wants(level)) return;
  platform::MutexLock lock(mutex_);
  sink_(level, line);
}

std::string printable(const std::string& text) {
  std::string shown;
  for (const char c : text) {
    const auto code = static_cast<unsigned char>(c);
    shown += code < ' ' || code == 0x7F ? '?' : c;
  }
  return shown;
}

}  // namespace zelta::agent
