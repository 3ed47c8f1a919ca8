// The log calls of the driver. Each formats a printf-style message of at most 255 characters (the
// rest is cut off) and hands it to the process's logger. They never report a failure.
//
// Any thread may call; records of concurrent callers do not mix. Nothing may be logged from a
// global constructor or destructor.
#pragma once

#include <cstddef>
#include <cstdint>

#include "logging/level.h"
#include "platform/process/printf_format.h"

namespace zelta {

// A record is written if its level is not above the logger's threshold.
using LogLevel = logging::Level;

// The result code of a failure that has no code.
inline constexpr std::int32_t kNoResultCode = -500;

// Level 3 and level 2, result code 0.
void logDebug(const char* format, ...) ZELTA_PRINTF(1, 2);
void logInfo(const char* format, ...) ZELTA_PRINTF(1, 2);
// Level 1. `code` is a system error number, an HRESULT, or `kNoResultCode`; written as a signed
// decimal number.
void logError(std::uint32_t code, const char* format, ...) ZELTA_PRINTF(2, 3);
inline constexpr std::uint32_t kNoError = static_cast<std::uint32_t>(kNoResultCode);
// Writes a record past the logger's filter; only the line writer tests its level.
void logMessage(std::uint8_t level, std::int32_t code, const char* format, ...) ZELTA_PRINTF(3, 4);

// Level 3. Writes a line with the count, then the bytes as lines of hexadecimal values. A dump is
// never mixed with other records, and nothing is formatted if the level is dropped.
void logByteDump(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t bytesPerLine);

}  // namespace zelta
