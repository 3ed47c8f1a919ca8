// A logger that keeps its records. Any thread may log and ask.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "logging/file_logger.h"
#include "tests/support/collected.h"

namespace zelta::test {

struct RecordedLine {
  std::int32_t level = 0;
  std::int32_t resultCode = 0;
  std::string message;

  friend bool operator==(const RecordedLine& a, const RecordedLine& b) {
    return std::tie(a.level, a.resultCode, a.message) == std::tie(b.level, b.resultCode, b.message);
  }
  friend std::ostream& operator<<(std::ostream& out, const RecordedLine& line) {
    return out << "level " << line.level << " code " << line.resultCode << " \"" << line.message
               << '"';
  }
};

class RecordingLogger final : public logging::LoggerBase {
 public:
  explicit RecordingLogger(std::uint32_t threshold = 3) : LoggerBase(threshold) {}

  std::vector<RecordedLine> lines() const { return lines_.all(); }
  // Blocks until there are `count` records.
  void awaitLines(std::size_t count) { lines_.await(count); }
  // Prints each later record to the standard error as well.
  void printLines() { prints_ = true; }

  // Null: a recording logger has no children.
  std::unique_ptr<logging::FileLogger> createChildForSession(const std::string&) override {
    return nullptr;
  }
  std::unique_ptr<logging::FileLogger> createChildForCategory(std::uint32_t) override {
    return nullptr;
  }
  using LoggerBase::log;
  void log(const std::string& message, logging::Level level,
           const std::int32_t& resultCode) override {
    writeLine(message, 0, static_cast<std::int32_t>(level), resultCode, {});
  }
  void log(const std::string& message, std::int32_t level, std::int32_t resultCode) override {
    writeLine(message, 0, level, resultCode, {});
  }
  void writeLine(const std::string& message, std::uint32_t, std::int32_t level,
                 std::int32_t resultCode, const std::string&) override {
    const RecordedLine line{level, resultCode, message};
    lines_.add(line);
    if (prints_) std::cerr << line << std::endl;
  }

 private:
  Collected<RecordedLine> lines_;
  std::atomic<bool> prints_{false};
};

}  // namespace zelta::test
