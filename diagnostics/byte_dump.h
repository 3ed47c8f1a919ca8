// Writes bytes to a log as lines of hexadecimal values.
#pragma once

#include <cstdint>
#include <string>

#include "logging/logger_base.h"

namespace zelta {

// The number of lines that a dump of `length` bytes has: length / bytesPerLine, rounded up, and
// length - 1 (empty ones) for 0 bytes per line. 0 for an empty buffer.
std::uint64_t byteDumpLineCount(std::uint64_t length, std::uint64_t bytesPerLine);

// The line with that number, from 0: two lower-case digits and a blank for each byte, "0a ff ".
std::string byteDumpLine(const std::uint8_t* bytes, std::uint64_t length,
                         std::uint64_t bytesPerLine, std::uint64_t line);

// Writes a record with the length, then one for each line, all at the debug level. Formats nothing
// if the logger drops that level. The caller makes sure that nothing else is written between the
// records.
void writeByteDump(logging::LoggerBase& logger, const std::uint8_t* bytes, std::uint64_t length,
                   std::uint64_t bytesPerLine);

}  // namespace zelta
