// Ends the program on the console's events: Ctrl-C, Ctrl-Break, the closing of its window and the
// system's end.
#pragma once

#include <windows.h>

namespace zelta::agent {

enum class ConsoleAnswer {
  kNotOurs,     // left to the system
  kEnd,         // the program ends
  kEndAndWait,  // it ends; the system kills the process as soon as it has its answer
};

// What a control event (CTRL_C_EVENT and so on) means. A user's logoff is left to the system: it
// ends that user's programs by itself, and a service keeps running.
ConsoleAnswer consoleAnswer(DWORD event);

// Takes over the console's events, which then no longer end the program, until the process ends.
// Returns an event that is signalled when the program must end; do not close it. Call once. Throws
// std::system_error.
HANDLE followConsole();

}  // namespace zelta::agent
