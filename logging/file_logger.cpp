#include "logging/file_logger.h"

#include <utility>

#include "logging/line_format.h"
#include "platform/files/file.h"
#include "platform/process/ports.h"

namespace zelta::logging {

using platform::kClockUnitsPerMillisecond;

FileLogger::FileLogger(std::uint32_t category, std::uint32_t threshold, std::string sessionLogId,
                       FileLogger* root, std::string basePath)
    : LoggerBase(threshold),
      root_(root == nullptr ? this : root),
      basePath_(std::move(basePath)),
      category_(category),
      sessionLogId_(std::move(sessionLogId)) {
  if (root_ == this) startNewFile();
}

FileLogger::~FileLogger() = default;

std::unique_ptr<FileLogger> FileLogger::createChildForSession(const std::string& sessionLogId) {
  return std::make_unique<FileLogger>(category_, threshold(), sessionLogId, root_, basePath_);
}

std::unique_ptr<FileLogger> FileLogger::createChildForCategory(std::uint32_t category) {
  return std::make_unique<FileLogger>(category == kSameCategory ? category_ : category, threshold(),
                                      sessionLogId_, root_, basePath_);
}

void FileLogger::log(const std::string& message, Level level, const std::int32_t& resultCode) {
  root_->writeLine(message, category_, static_cast<std::int32_t>(level), resultCode, sessionLogId_);
}

void FileLogger::log(const std::string& message, std::int32_t level, std::int32_t resultCode) {
  root_->writeLine(message, category_, level, resultCode, sessionLogId_);
}

void FileLogger::writeLine(const std::string& message, std::uint32_t category, std::int32_t level,
                           std::int32_t resultCode, const std::string& sessionLogId) {
  if (root_ != this || isAboveThreshold(level)) return;
  Record record;
  record.thread = currentThreadText();
  record.time = platform::ports().clock->now();
  record.elapsed = record.time / kClockUnitsPerMillisecond - file_->creationTime();
  record.sessionLogId = sessionLogId;
  record.category = category;
  record.level = level;
  record.resultCode = resultCode;
  record.message = message;
  file_->writeLine(recordLine(record));
}

void FileLogger::startNewFile() {
  file_ = std::make_unique<TextFile>(newFilePath());
  file_->writeLine(std::string(headerLine()));
}

std::string FileLogger::newFilePath() const {
  // Two files made within one millisecond (by two sessions, or by two processes) would have the
  // same name, and the second would replace the first. So the second takes the name of the next
  // free millisecond.
  std::int64_t time = platform::ports().clock->now();
  for (;;) {
    std::string path = logFilePath(basePath_, time);
    const platform::NewFile made =
        platform::makeNewFile(platform::nativePath(path), platform::Readers::kOwnerAndGroup);
    if (made != platform::NewFile::kExists) return path;
    time += kClockUnitsPerMillisecond;
  }
}

}  // namespace zelta::logging
