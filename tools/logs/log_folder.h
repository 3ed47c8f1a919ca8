// Reads the log files of a folder and follows them as they grow.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files/scoped_fd_linux.h"

namespace zelta::logs {

// The folder that the driver writes log files to.
std::string defaultFolder();

// The log files of a folder, oldest first: their names carry the time of their creation. Regular
// files only.
std::vector<std::filesystem::path> logFiles(const std::filesystem::path& folder);

// Whether a process has the file open for writing. None if that cannot be told: only the file's
// owner and root may ask. The process must ignore SIGIO, which it gets if another process opens the
// file meanwhile.
std::optional<bool> isBeingWritten(const std::filesystem::path& file);

// Reads a folder's files as they grow. Each process that loads the driver writes its own file, so
// all of them are followed. Not safe for several threads.
class LogReader {
 public:
  using Line = std::function<void(std::string_view line, const std::filesystem::path& file)>;

  // Starts with the folder's oldest file, or with its newest and those that are being written.
  LogReader(std::filesystem::path folder, bool fromOldest);

  // Passes on every new whole line of all files, one file after the other. A file that was removed
  // and made again, or emptied, is read from its beginning. A last line without its end is held
  // back, except in an older file that is known to have no writer. Throws std::system_error if a
  // file may not be read.
  void readNew(const Line& line);

  // The newest file; empty if there is none yet.
  const std::filesystem::path& current() const { return current_; }

 private:
  struct File {
    // These tell the file from another one of the same name.
    std::uint64_t device = 0;
    std::uint64_t number = 0;
    std::int64_t made = 0;  // nanoseconds
    std::uint64_t size = 0;
    std::uint64_t position = 0;  // of the next byte to read
  };

  static std::optional<File> look(const std::filesystem::path& path);
  std::uint64_t startOf(const std::filesystem::path& path, const File& file) const;
  bool mayGrow(const std::filesystem::path& path, std::uint64_t end) const;
  std::uint64_t readFrom(const std::filesystem::path& path, std::uint64_t position,
                         const Line& line) const;

  std::filesystem::path folder_;
  bool fromOldest_;
  bool begun_ = false;
  std::filesystem::path current_;
  std::map<std::filesystem::path, File> files_;
};

// Waits until something in the folder changes. One thread.
class FolderWatch {
 public:
  // Throws std::system_error.
  explicit FolderWatch(const std::filesystem::path& folder);

  // False if SIGINT or SIGTERM came (which the constructor blocks), or the folder is gone.
  bool wait();

 private:
  platform::ScopedFd signals_;
  platform::ScopedFd watch_;
};

}  // namespace zelta::logs
