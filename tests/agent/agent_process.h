// The agent's program, run as a separate process.
#pragma once

#include <string>
#include <vector>

#include "tests/support/child_process.h"

namespace zelta::test {

// Lines of standard output and standard error together, as `readLine` gives them.
class AgentProcess : public ChildProcess {
 public:
  explicit AgentProcess(const std::vector<std::string>& arguments)
      : ChildProcess(ZELTA_AGENT_PROGRAM, arguments) {}
};

// How a program ended, and its output.
struct Ended {
  int exitCode = -1;
  std::string text;
};

// Reads the process's remaining output until it has ended.
inline Ended awaitEnd(ChildProcess& process) {
  Ended ended;
  while (const std::optional<std::string> line = process.readLine()) ended.text += *line + "\n";
  ended.exitCode = process.wait().value_or(-1);
  return ended;
}

// Runs the program with these arguments until it ends.
inline Ended runProgram(const std::vector<std::string>& arguments) {
  AgentProcess process(arguments);
  return awaitEnd(process);
}

}  // namespace zelta::test
