// Parses a line of the driver's log. Pure; no I/O.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "logging/level.h"

namespace zelta::logs {

using logging::Level;

// Views into the line that was parsed.
struct Record {
  std::string_view columns;  // everything before the message
  std::string_view thread;
  std::string_view time;  // UTC, 2024-03-05T14:07:09.042Z; compares as text
  std::string_view session;
  Level level = Level::kInfo;
  std::int64_t code = 0;  // the result's; 0 for none
  std::string_view message;
};

// None for a line that is not a record: the header, or the rest of a message of several lines.
std::optional<Record> parseRecord(std::string_view line);

bool isHeader(std::string_view line);

// "CRITICAL" and so on.
std::string_view levelName(Level level);

// "error" or "ERROR" or "1"; none for anything else.
std::optional<Level> parseLevel(std::string_view text);

// Whether the message begins with the bracketed tag, "[TRSM]" or "TRSM", alone or among others.
// Case is ignored.
bool hasTag(std::string_view message, std::string_view tag);

// The first tag of those that the message begins with, without its brackets; empty for none.
std::string_view firstTag(std::string_view message);

// Whether it is an error that occurs in normal use: a program has asked for an attribute that the
// reader does not have.
bool isRoutine(const Record& record);

// A number of up to nine digits. None for anything else.
std::optional<std::uint32_t> parseCount(std::string_view text);

// The seconds of a span of time: 90s, 10m, 2h, 1d. None for anything else.
std::optional<std::int64_t> parseSpan(std::string_view text);

// A number of bytes: 4096, 64K, 200M, 2G (a K is 1024). None for anything else.
std::optional<std::uint64_t> parseSize(std::string_view text);

// A time to compare records with: a time stamp in UTC, whole or cut short (2024-03-05,
// 2024-03-05T14:07, with or without the Z), or a span before `now` (seconds since 1970): 90s, 10m,
// 2h, 1d. None for anything else.
std::optional<std::string> parseSince(std::string_view text, std::int64_t now);

}  // namespace zelta::logs
