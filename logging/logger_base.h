// The base of every logger: a level threshold and the operations that a record goes through.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "logging/level.h"

namespace zelta::logging {

class FileLogger;

// The result code of the library's own error records.
inline constexpr std::int32_t kOwnErrorCode = -500;
// Gives a child its parent's category.
inline constexpr std::uint32_t kSameCategory = 0xFFFFFFFF;

// Formats a message before it is written. This one leaves it as it is.
class StringFormatter {
 public:
  std::string format(const std::string& message) const { return message; }
};

// Any thread may call unless the concrete logger says otherwise. A record whose level is above the
// threshold is dropped. Levels compare unsigned, so a negative one is above every threshold but the
// highest.
class LoggerBase {
 public:
  explicit LoggerBase(std::uint32_t threshold);
  LoggerBase(const LoggerBase&) = delete;
  LoggerBase& operator=(const LoggerBase&) = delete;

  // The virtual operations are called by slot; their order is part of the interface.
  virtual ~LoggerBase();
  // A child writes through this logger's root, with another session log id or another category
  // (`kSameCategory` keeps it). It begins with its own copy of the threshold. A child must not
  // outlive its root.
  virtual std::unique_ptr<FileLogger> createChildForSession(const std::string& sessionLogId) = 0;
  virtual std::unique_ptr<FileLogger> createChildForCategory(std::uint32_t category) = 0;
  // Passes a record to the line writer without this logger's level test.
  virtual void log(const std::string& message, Level level, const std::int32_t& resultCode) = 0;
  virtual void log(const std::string& message, std::int32_t level, std::int32_t resultCode) = 0;
  // Formats and writes one line.
  virtual void writeLine(const std::string& message, std::uint32_t category, std::int32_t level,
                         std::int32_t resultCode, const std::string& sessionLogId) = 0;

  // Logs with the filter: the level test, the formatter, then the operation above that takes the
  // code by value.
  void log(std::int32_t level, std::int32_t resultCode, const std::string& message);

  bool isAboveThreshold(std::int32_t level) const {
    return static_cast<std::uint32_t>(level) > threshold();
  }
  std::uint32_t threshold() const { return threshold_.load(std::memory_order_relaxed); }
  void setThreshold(std::uint32_t threshold) {
    threshold_.store(threshold, std::memory_order_relaxed);
  }
  // Always 0; the result code of records that have none.
  std::uint32_t reservedWord() const { return reserved_; }

 private:
  const std::uint32_t reserved_;
  std::atomic<std::uint32_t> threshold_;
  std::unique_ptr<StringFormatter> formatter_;
};

// Writes the message that `makeMessage` gives as an Error record. For threads and destructors,
// which must not let an exception out: a record that cannot be made or written is lost, since there
// is no other place to report it.
template <typename MakeMessage>
void logErrorOrLose(LoggerBase& logger, std::uint32_t resultCode,
                    MakeMessage makeMessage) noexcept {
  try {
    logger.log(static_cast<std::int32_t>(Level::kError), static_cast<std::int32_t>(resultCode),
               makeMessage());
  } catch (...) {
  }
}

}  // namespace zelta::logging
