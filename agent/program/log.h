// The agent's own log: one line an event.
//
// Any thread may call; lines are never mixed. What is sent to and from the card is logged by length
// and header only, because a command may carry a PIN.
#pragma once

#include <functional>
#include <string>

#include "platform/sync/sync.h"

namespace zelta::agent {

// A line's severity, as in the system's log; the most serious first.
enum class Severity { kError, kWarning, kInfo, kDebug };

// "error", "warning", "info" or "debug".
const char* severityName(Severity severity);

class Log {
 public:
  // Gets one line without its line break, one call at a time. Must not throw.
  using Sink = std::function<void(Severity severity, const std::string& line)>;

  // Lines less serious than `least` are dropped.
  Log(Severity least, Sink sink);
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;

  bool wants(Severity severity) const { return severity <= least_; }
  void write(Severity severity, const std::string& line);
  void error(const std::string& line) { write(Severity::kError, line); }
  void warning(const std::string& line) { write(Severity::kWarning, line); }
  void info(const std::string& line) { write(Severity::kInfo, line); }
  void debug(const std::string& line) { write(Severity::kDebug, line); }

 private:
  const Severity least_;
  platform::Mutex mutex_;
  const Sink sink_ ZELTA_GUARDED_BY(mutex_);
};

// Now, in UTC: 2024-03-05T14:07:09.042Z.
std::string timeStamp();

}  // namespace zelta::agent
