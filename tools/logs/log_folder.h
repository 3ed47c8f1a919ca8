// Reads the log files of a folder, one after the other, and goes on with the newest.
#pragma once

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace zelta::logs {

// The log files of a folder, oldest first: their names carry the time of their creation.
std::vector<std::filesystem::path> logFiles(const std::filesystem::path& folder);

// A position in the sequence of files. Not safe for several threads.
class LogReader {
 public:
  using Line = std::function<void(std::string_view)>;

  // Starts with the folder's oldest file, or with its newest.
  LogReader(std::filesystem::path folder, bool fromOldest);

  // Hands over every new whole line of this file and of newer ones. A last line without its end
  // waits for the rest of it as long as its file is the newest. Throws std::system_error if a file
  // may not be read.
  void readNew(const Line& line);

  // The file that is being read; empty if there is none yet.
  const std::filesystem::path& current() const { return current_; }

 private:
  void open();  // the current file
  void readFile(const Line& line);

  std::filesystem::path folder_;
  bool fromOldest_;
  std::filesystem::path current_;
  std::ifstream stream_;
  std::string partial_;
};

// Waits until something in the folder changes. One thread.
class FolderWatch {
 public:
  // Throws std::system_error.
  explicit FolderWatch(const std::filesystem::path& folder);
  ~FolderWatch();
  FolderWatch(const FolderWatch&) = delete;
  FolderWatch& operator=(const FolderWatch&) = delete;

  // False if SIGINT or SIGTERM came (which the constructor blocks), or the folder is gone.
  bool wait();

 private:
  int watch_ = -1;
  int signals_ = -1;
};

}  // namespace zelta::logs
