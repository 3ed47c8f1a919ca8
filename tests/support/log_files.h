// Reads log files back: the files of a folder, their lines, a line's columns.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace zelta::test {

struct LogLine {
  std::string thread;
  std::string time;
  std::int64_t elapsed = 0;  // milliseconds
  std::string sessionLogId;
  std::uint32_t category = 0;
  std::string level;
  std::int32_t resultCode = 0;
  std::string message;
};

inline constexpr char kHeaderText[] =
    "Thread   Time                     Elapsed  Session Log Id                       Cat   "
    "Level      RC          Message";

// The files are text files: a line ends as the system's lines do.
#if defined(_WIN32)
inline constexpr char kLineEnd[] = "\r\n";
#else
inline constexpr char kLineEnd[] = "\n";
#endif

// The file's content, byte for byte.
std::string fileContent(const std::filesystem::path& path);
// The lines without their ends. A line with another end, or none, is a failure of the test.
std::vector<std::string> fileLines(const std::filesystem::path& path);

// The files of a folder by name, so log files are in the order of their times.
std::vector<std::filesystem::path> filesIn(const std::filesystem::path& folder);

// Parses a record line. If it is not a whole one, the test fails.
LogLine parseLogLine(const std::string& line);
// The records of a file after its header. If the header is missing or comes twice, the test fails.
std::vector<LogLine> recordsOf(const std::filesystem::path& path);
// The records of all files of a folder, one file after the other.
std::vector<LogLine> recordsIn(const std::filesystem::path& folder);
std::vector<std::string> messagesOf(const std::vector<LogLine>& lines);

// Expects every message "LABEL/N" once, N from 0 to `count` - 1 in order within its label; anything
// else is a failure of the test.
void expectNumberedMessages(const std::vector<std::string>& messages, std::size_t labels,
                            int count);

// "LEVEL CODE MESSAGE" of each, for comparing: "<ERROR> -500 text".
std::vector<std::string> summaries(const std::vector<LogLine>& lines);

}  // namespace zelta::test
