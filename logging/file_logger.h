// A logger that writes to its own file, or to the file of the logger it was made from.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "logging/logger_base.h"
#include "logging/text_file.h"

namespace zelta::logging {

// A top-level logger owns its file and is its own root; a child writes to its root's file. One
// thread at a time may use a top-level FileLogger (FileLoggerWindows adds the lock). Its children
// take no lock.
class FileLogger : public LoggerBase {
 public:
  // `root` is the logger that owns the file. It is not owned and must outlive this logger. If it is
  // null or this logger itself, this one is top-level and makes its first file. `basePath` (UTF-8)
  // is what file names begin with.
  FileLogger(std::uint32_t category, std::uint32_t threshold, std::string sessionLogId,
             FileLogger* root, std::string basePath);
  ~FileLogger() override;

  std::unique_ptr<FileLogger> createChildForSession(const std::string& sessionLogId) override;
  std::unique_ptr<FileLogger> createChildForCategory(std::uint32_t category) override;
  using LoggerBase::log;
  void log(const std::string& message, Level level, const std::int32_t& resultCode) override;
  void log(const std::string& message, std::int32_t level, std::int32_t resultCode) override;
  // Does nothing in a child, nor if the level is above the threshold. Throws `std::out_of_range`
  // for a level that has no tag.
  void writeLine(const std::string& message, std::uint32_t category, std::int32_t level,
                 std::int32_t resultCode, const std::string& sessionLogId) override;

  std::uint32_t category() const { return category_; }
  const std::string& sessionLogId() const { return sessionLogId_; }

 protected:
  // Top-level loggers only. Makes a new file with a header and closes the one before.
  void startNewFile();
  // Milliseconds since 1970.
  std::int64_t fileCreationTime() const { return file_->creationTime(); }

 private:
  std::string newFilePath() const;

  FileLogger* const root_;  // not owned
  const std::string basePath_;
  const std::uint32_t category_;
  const std::string sessionLogId_;
  std::unique_ptr<TextFile> file_;  // none in a child
};

}  // namespace zelta::logging
