// Writes the handler's lines to pcscd's log, which the daemon offers to the libraries that it
// loads, or to the standard error output if the process offers none.
//
// Any thread may call.
#pragma once

#include <functional>
#include <string>

namespace zelta::pcsc {

// pcscd's numbers.
enum class LogLevel { kDebug = 0, kInfo = 1, kError = 2, kCritical = 3 };

using Log = std::function<void(LogLevel, const std::string&)>;

void logToDaemon(LogLevel level, const std::string& text);

}  // namespace zelta::pcsc
