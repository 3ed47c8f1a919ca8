// The process's logger, to which the log calls go. The logging facade implements these functions; a
// program that wants the records themselves links another implementation instead.
#pragma once

#include <cstdint>
#include <string>

#include "diagnostics/log.h"

namespace zelta {

// Whether the logger's level test would drop a record of that level, so that it need not be made.
// False if there is no logger, because logging the record makes one.
bool isDropped(LogLevel level);

// Writes a record if it passes the logger's level test.
void writeFilteredRecord(LogLevel level, std::int32_t code, const std::string& message);
// Writes a record without the logger's level test.
void writeRecord(std::uint8_t level, std::int32_t code, const std::string& message);

// Starts a new log file whose lines carry the id of the session that the agent announced.
void setSessionLogId(const std::string& id);

// "No session": the id before the agent has announced one and after the card was removed.
inline constexpr char kNullSessionLogId[] = "00000000-0000-0000-0000-000000000000";

// Ends the process's logger with its threads and closes its file. A later record makes a new one.
// Any thread, also while others log: a thread that is writing finishes first. Must not be called
// under the operating system's loader lock.
void shutDownLogging();
// Whether there is a logger: a record has made one, and it has not been ended since.
bool hasLogger();

}  // namespace zelta
