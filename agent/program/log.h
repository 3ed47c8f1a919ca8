// The agent's own log: one line an event.
//
// Any thread may call; lines are never mixed. What is sent to and from the card is logged by length
// and header only, because a command may carry a PIN.
#pragma once

#include <functional>
#include <string>

#include "platform/sync/sync.h"

namespace zelta::agent {

enum class LogLevel { kError, kWarning, kInfo, kDebug };

// "error", "warning", "info" or "debug".
const char* levelName(LogLevel level);

class Log {
 public:
  // Gets one line without its line break, one call at a time. Must not throw.
  using Sink = std::function<void(LogLevel level, const std::string& line)>;

  // Lines below `least` in weight are dropped.
  Log(LogLevel least, Sink sink);
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  bool wants(LogLevel level) const { return level <= least_; }
  void write(LogLevel level, const std::string& line);
  void error(const std::string& line) { write(LogLevel::kError, line); }
  void warning(const std::string& line) { write(LogLevel::kWarning, line); }
  void info(const std::string& line) { write(LogLevel::kInfo, line); }
  void debug(const std::string& line) { write(LogLevel::kDebug, line); }

 private:
  const LogLevel least_;
  platform::Mutex mutex_;
  const Sink sink_ ZELTA_GUARDED_BY(mutex_);
};

// Line breaks and other control characters of `text` made visible, so that text from outside cannot
// pass for a line of the agent's.
std::string printable(const std::string& text);

}  // namespace zelta::agent
