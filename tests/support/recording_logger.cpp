#include "tests/support/recording_logger.h"

#include <iostream>
#include <tuple>

namespace zelta::test {

bool operator==(const RecordedLine& a, const RecordedLine& b) {
  return std::tie(a.level, a.resultCode, a.message) == std::tie(b.level, b.resultCode, b.message);
}

std::ostream& operator<<(std::ostream& out, const RecordedLine& line) {
  return out << "level " << line.level << " code " << line.resultCode << " \"" << line.message
             << '"';
}

std::unique_ptr<logging::FileLogger> RecordingLogger::createChildForSession(const std::string&) {
  return nullptr;
}

std::unique_ptr<logging::FileLogger> RecordingLogger::createChildForCategory(std::uint32_t) {
  return nullptr;
}

void RecordingLogger::log(const std::string& message, logging::Level level,
                          const std::int32_t& resultCode) {
  writeLine(message, 0, static_cast<std::int32_t>(level), resultCode, std::string());
}

void RecordingLogger::log(const std::string& message, std::int32_t level, std::int32_t resultCode) {
  writeLine(message, 0, level, resultCode, std::string());
}

void RecordingLogger::writeLine(const std::string& message, std::uint32_t, std::int32_t level,
                                std::int32_t resultCode, const std::string&) {
  const RecordedLine line{level, resultCode, message};
  lines_.add(line);
  if (prints_) std::cerr << line << std::endl;
}

}  // namespace zelta::test
