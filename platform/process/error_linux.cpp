#include "platform/process/error.h"

namespace zelta::platform {

namespace {

thread_local std::uint32_t threadError = error::kSuccess;

}  // namespace

std::uint32_t lastError() { return threadError; }

void setLastError(std::uint32_t error) { threadError = error; }

}  // namespace zelta::platform
