#include "diagnostics/log.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "diagnostics/log_output.h"

namespace zelta {

namespace {

constexpr std::size_t kMessageBufferSize = 256;  // characters, the terminator included

ZELTA_PRINTF(1, 0)
std::string formatMessage(const char* format, std::va_list arguments) {
  std::array<char, kMessageBufferSize> buffer{};
  const int length = std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
  buffer.back() = '\0';
  // The formatter gives up on a wide character that the process's locale cannot express. The
  // format itself is still worth a line.
  if (length < 0) return std::string(format).substr(0, kMessageBufferSize - 1);
  return buffer.data();
}

template <typename Write>
void writeOrLose(Write write) noexcept {
  try {
    write();
  } catch (...) {
    // A log call reports no failure to its caller. A record that cannot be made or written (no
    // memory, a failing logger) is lost: there is no other place to report it.
  }
}

}  // namespace

// The compiler checks the arguments by the format.
// NOLINTBEGIN(cert-dcl50-cpp)

void logDebug(const char* format, ...) {
  if (isDropped(LogLevel::kDebug)) return;
  std::va_list arguments;
  va_start(arguments, format);
  writeOrLose([&] { writeFilteredRecord(LogLevel::kDebug, 0, formatMessage(format, arguments)); });
  va_end(arguments);
}

void logInfo(const char* format, ...) {
  if (isDropped(LogLevel::kInfo)) return;
  std::va_list arguments;
  va_start(arguments, format);
  writeOrLose([&] { writeFilteredRecord(LogLevel::kInfo, 0, formatMessage(format, arguments)); });
  va_end(arguments);
}

void logError(std::uint32_t code, const char* format, ...) {
  if (isDropped(LogLevel::kError)) return;
  std::va_list arguments;
  va_start(arguments, format);
  writeOrLose([&] {
    writeFilteredRecord(LogLevel::kError, static_cast<std::int32_t>(code),
                        formatMessage(format, arguments));
  });
  va_end(arguments);
}

void logMessage(std::uint8_t level, std::int32_t code, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  writeOrLose([&] { writeRecord(level, code, formatMessage(format, arguments)); });
  va_end(arguments);
}

// NOLINTEND(cert-dcl50-cpp)

}  // namespace zelta
