// A logger that writes to a file, or through another logger to that one's file.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "logging/logger_base.h"
#include "logging/text_file.h"

namespace zelta::logging {

// A top-level logger owns its file and is its own root; a child has a root's file to write to. A
// top-level FileLogger is to be used by one thread at a time (FileLoggerWindows adds the lock);
// its children take no lock of their own.
class FileLogger : public LoggerBase {
 public:
  // `root` is the logger that owns the file, this one itself (or null) for a top-level logger,
  // which then makes its first file. It is not owned and must outlive this logger. `basePath` is
  // UTF-8, what file names begin with.
  FileLogger(std::uint32_t category, std::uint32_t threshold, std::string sessionLogId,
             FileLogger* root, std::string basePath);
  ~FileLogger() override;

  std::unique_ptr<FileLogger> createChildForSession(const std::string& sessionLogId) override;
  std::unique_ptr<FileLogger> createChildForCategory(std::uint32_t category) override;
  using LoggerBase::log;
  void log(const std::string& message, Level level, const std::int32_t& resultCode) override;
  void log(const std::string& message, std::int32_t level, std::int32_t resultCode) override;
  // Does nothing in a child and above the threshold. Throws `std::out_of_range` for a level that
  // has no tag.
  void writeLine(const std::string& message, std::uint32_t category, std::int32_t level,
                 std::int32_t resultCode, const std::string& sessionLogId) override;

  std::uint32_t category() const { return category_; }
  const std::string& sessionLogId() const { return sessionLogId_; }

 protected:
  // Top-level loggers only. Makes a new file with a heading and closes the one before.
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
