#include "logging/logger_base.h"

namespace zelta::logging {

LoggerBase::LoggerBase(std::uint32_t threshold)
    : reserved_(0), threshold_(threshold), formatter_(std::make_unique<StringFormatter>()) {}

LoggerBase::~LoggerBase() = default;

void LoggerBase::log(std::int32_t level, std::int32_t resultCode, const std::string& message) {
  if (isAboveThreshold(level)) return;
  log(formatter_->format(message), level, resultCode);
}

}  // namespace zelta::logging
