// What the console wants of the program: Ctrl-C, Ctrl-Break, the closing of its window and the
// system's end all end it.
#pragma once

#include <windows.h>

namespace zelta::agent {

enum class ConsoleAnswer {
  kNotOurs,     // left to the system
  kEnd,         // the program ends
  kEndAndWait,  // the same; the system kills the process as soon as it has its answer
};

// What a control event (CTRL_C_EVENT and so on) means. A user's logoff is left to the system: it
// ends what belongs to that user by itself, and a service serves on.
ConsoleAnswer consoleAnswer(DWORD event);

// From now on, until the process ends, the program learns of the console's events here and does not
// end by itself. Returns an event that is signalled when it is to end; not to be closed. Once.
// Throws std::system_error.
HANDLE followConsole();

}  // namespace zelta::agent
