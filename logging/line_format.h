// The texts of the log: file names, the header line, record lines.
//
// Pure functions. Times are 100-nanosecond units since 1970-01-01T00:00:00Z, as the wall clock
// gives them. Nothing here depends on the process's locale.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace zelta::logging {

// The contents of one record line.
struct Record {
  std::string_view thread;
  std::int64_t time = 0;     // wall clock units
  std::int64_t elapsed = 0;  // milliseconds since the file was made
  std::string_view sessionLogId;
  std::uint32_t category = 0;
  std::int32_t level = 0;
  std::int32_t resultCode = 0;
  std::string_view message;
};

// `basePath`, the time to the millisecond and ".txt": base_2024_03_05T14_07_09_042Z.txt.
std::string logFilePath(const std::string& basePath, std::int64_t time);

// The first line of every file, without a line end. Built on first use; never destroyed.
std::string_view headerLine();

// One record, without a line end. A value that is longer than its column pushes the rest to the
// right; widths are in bytes. Control characters of the session id and the message (below 0x20, and
// 0x7F) are written as `\xNN`, so that no agent's text can forge a record. Throws
// `std::out_of_range` for a level outside 0..4.
std::string recordLine(const Record& record);

// "<CRITICAL>" to "<TRACE>" for 0..4; throws `std::out_of_range` ("invalid map<K, T> key") for any
// other level.
std::string_view levelTag(std::int32_t level);

// The calling thread's number in the operating system. Valid while the thread lives.
std::string_view currentThreadText();

}  // namespace zelta::logging
