#include "pcsc/log.h"

#include <cstdio>

// Null if the library is not loaded by pcscd.
// NOLINTNEXTLINE(readability-identifier-naming): pcscd's name.
extern "C" __attribute__((weak)) void log_msg(int priority, const char* format, ...);

namespace zelta::pcsc {

void logToDaemon(LogLevel level, const std::string& text) {
  if (log_msg != nullptr) {
    log_msg(static_cast<int>(level), "zelta: %s", text.c_str());
  } else {
    (void)std::fprintf(stderr, "zelta: %s\n", text.c_str());
  }
}

}  // namespace zelta::pcsc
