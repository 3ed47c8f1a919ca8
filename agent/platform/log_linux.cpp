#include "agent/program/program.h"

#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <string>

#include "platform/process/environment.h"

namespace zelta::agent {

namespace {

// Whether standard error goes to the journal, which identifies the stream in this variable.
bool toJournal() {
  struct stat status {};
  if (fstat(STDERR_FILENO, &status) != 0) return false;
  return platform::environmentOr("JOURNAL_STREAM", "") ==
         std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

const char* journalMark(Severity level) {
  switch (level) {
    case Severity::kError:
      return SD_ERR;
    case Severity::kWarning:
      return SD_WARNING;
    case Severity::kInfo:
      return SD_INFO;
    case Severity::kDebug:
      break;
  }
  return SD_DEBUG;
}

// One write a line, so that lines of several processes are not mixed.
void writeLine(const std::string& line) {
  const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
  static_cast<void>(written);  // nowhere to say that the log cannot be written
}

}  // namespace

Log::Sink standardErrorSink() {
  if (toJournal()) {
    return [](Severity level, const std::string& line) {
      writeLine(journalMark(level) + line + "\n");
    };
  }
  return [](Severity level, const std::string& line) {
    writeLine(timeStamp() + " " + severityName(level) + ": " + line + "\n");
  };
}

}  // namespace zelta::agent
