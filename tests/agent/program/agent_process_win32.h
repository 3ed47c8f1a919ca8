// The agent's program, run as a process of its own on a console of its own without a window.
#pragma once

#include <windows.h>
// windows.h comes first
#include <string>
#include <thread>
#include <vector>

#include "agent/platform/pipe_connection_win32.h"
#include "tests/agent/program/running_agent.h"

namespace zelta::test {

// How a process ended and what it said, with line breaks of one character.
struct Ended {
  DWORD exitCode = 0;
  std::string output;
  std::string error;
};

class AgentProcess {
 public:
  // The program beside the test's own. Throws where it cannot be started.
  explicit AgentProcess(const std::vector<std::string>& arguments);
  // Ends it where it runs.
  ~AgentProcess();
  AgentProcess(const AgentProcess&) = delete;
  AgentProcess& operator=(const AgentProcess&) = delete;

  // Lines of its standard error, as they come.
  LogLines& log() { return lines_; }
  // As Ctrl-C on its console. The test's program has no console from then on. False where the
  // system refuses.
  bool pressControlC();
  // Until it has ended.
  Ended wait();

 private:
  void readError();

  agent::ScopedHandle process_;
  DWORD id_ = 0;
  agent::ScopedHandle output_;
  agent::ScopedHandle error_;
  Ended ended_;  // its texts: the reading threads' until they are joined
  LogLines lines_;
  std::thread outputReader_;
  std::thread errorReader_;
};

// Runs the program with these arguments until it ends.
Ended runProgram(const std::vector<std::string>& arguments);

}  // namespace zelta::test
