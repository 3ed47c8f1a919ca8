#include "agent/platform/console_end_win32.h"

#include <system_error>

namespace zelta::agent {

namespace {

HANDLE endRequested = nullptr;  // made once, never closed: the handler may run at any time

[[noreturn]] void fail(const char* what) {
  throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

// Runs on a thread of the system's.
BOOL WINAPI onConsoleEvent(DWORD event) {
  const ConsoleAnswer answer = consoleAnswer(event);
  if (answer == ConsoleAnswer::kNotOurs) return FALSE;
  SetEvent(endRequested);
  if (answer == ConsoleAnswer::kEndAndWait) Sleep(INFINITE);  // the program's end ends this thread
  return TRUE;
}

}  // namespace

ConsoleAnswer consoleAnswer(DWORD event) {
  switch (event) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
      return ConsoleAnswer::kEnd;
    case CTRL_CLOSE_EVENT:
    case CTRL_SHUTDOWN_EVENT:
      return ConsoleAnswer::kEndAndWait;
    default:
      return ConsoleAnswer::kNotOurs;
  }
}

HANDLE followConsole() {
  endRequested = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (endRequested == nullptr) fail("CreateEvent");
  if (!SetConsoleCtrlHandler(onConsoleEvent, TRUE)) fail("SetConsoleCtrlHandler");
  return endRequested;
}

}  // namespace zelta::agent
