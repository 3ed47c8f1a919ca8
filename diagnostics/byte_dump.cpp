#include "diagnostics/byte_dump.h"

#include <algorithm>

namespace zelta {

namespace {

constexpr std::int32_t kDebug = static_cast<std::int32_t>(logging::Level::kDebug);
constexpr char kDigits[] = "0123456789abcdef";

}  // namespace

std::uint64_t byteDumpLineCount(std::uint64_t length, std::uint64_t bytesPerLine) {
  if (length == 0) return 0;
  const std::uint64_t divisor = bytesPerLine >= 2 ? bytesPerLine : 1;
  // Intentional: a bytesPerLine near the highest number wraps round and gives no line.
  return (length - 1 + bytesPerLine) / divisor;
}

std::string byteDumpLine(const std::uint8_t* bytes, std::uint64_t length,
                         std::uint64_t bytesPerLine, std::uint64_t line) {
  const std::uint64_t begin = std::min(line * bytesPerLine, length);
  const std::uint64_t end = begin + std::min(bytesPerLine, length - begin);
  std::string text;
  text.reserve(static_cast<std::size_t>((end - begin) * 3));
  for (std::uint64_t i = begin; i < end; ++i) {
    text.push_back(kDigits[bytes[i] >> 4]);
    text.push_back(kDigits[bytes[i] & 0x0F]);
    text.push_back(' ');
  }
  return text;
}

void writeByteDump(logging::LoggerBase& logger, const std::uint8_t* bytes, std::uint64_t length,
                   std::uint64_t bytesPerLine) {
  if (logger.isAboveThreshold(kDebug)) return;
  logger.log(kDebug, 0, std::to_string(length) + " byte dump:");
  const std::uint64_t lines = byteDumpLineCount(length, bytesPerLine);
  for (std::uint64_t line = 0; line < lines; ++line) {
    logger.log(byteDumpLine(bytes, length, bytesPerLine, line), kDebug, 0);
  }
}

}  // namespace zelta
