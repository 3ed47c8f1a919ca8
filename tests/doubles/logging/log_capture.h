// The driver's log, kept in memory: replaces the logging facade at link time. A program that links
// `zelta_log_capture` has what `diagnostics/log_output.h` declares, and `logByteDump`.
//
// One store for the process. Any thread may log and ask.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "diagnostics/log.h"

namespace zelta::test {

struct LogRecord {
  std::uint8_t level = 0;
  std::int32_t code = 0;
  std::string text;
  bool filtered = true;  // came through the level test; false for `logMessage`
};

struct ByteDump {
  std::vector<std::uint8_t> bytes;
  std::uint64_t bytesPerLine = 0;
};

bool operator==(const LogRecord& a, const LogRecord& b);
std::ostream& operator<<(std::ostream& out, const LogRecord& record);

// The records that the log calls write.
LogRecord debug(const std::string& text);
LogRecord info(const std::string& text);
LogRecord error(std::uint32_t code, const std::string& text);

// Begins with an empty store; one object at a time.
class LogCapture {
 public:
  // Kept until `clear`.
  struct Captured {
    std::vector<LogRecord> records;
    std::vector<std::string> sessionIds;
    std::vector<ByteDump> byteDumps;
    bool hasLogger = false;
    int shutDowns = 0;
    bool shutDownFails = false;
    std::function<void()> shutDownHook;
    std::size_t recordsAtShutDown = 0;
  };

  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogRecord> records() const { return captured().records; }
  // The records above debug level, at which timed sections and contended locks report.
  std::vector<LogRecord> recordsAboveDebug() const;
  // The records of error level.
  std::vector<LogRecord> errors() const;
  std::size_t count(const std::string& text) const;
  bool contains(const LogRecord& record) const;
  // Waits until a record with the text is there; false if the time ran out.
  bool waitFor(const std::string& text,
               std::chrono::milliseconds limit = std::chrono::seconds(30)) const;
  void clear();

  std::vector<std::string> sessionIds() const { return captured().sessionIds; }
  // How often the process's logger was shut down.
  int shutDowns() const { return captured().shutDowns; }
  // The number of records at the last shutdown.
  std::size_t recordsAtShutDown() const { return captured().recordsAtShutDown; }
  // Makes later shutdowns of the logger fail.
  void failShutDown();
  // Called while the logger is being shut down. An empty hook ends that.
  void setShutDownHook(std::function<void()> hook);
  std::vector<ByteDump> byteDumps() const { return captured().byteDumps; }

  // Called on the logging thread for every record, after it was stored. Its exceptions leave the
  // logger, as a failing logger's do. An empty hook ends that.
  void setHook(std::function<void(const LogRecord&)> hook);

 private:
  Captured captured() const;
};

}  // namespace zelta::test
