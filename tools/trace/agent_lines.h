// The lines that a running agent sends to whoever follows its trace.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/files/scoped_fd_linux.h"

namespace zelta::trace {

// The agent cannot be asked; the message is for people.
class AgentError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Where the control socket of a reader's agent may be; `control` alone if it is not empty.
std::vector<std::string> controlPaths(const std::string& control, std::uint32_t reader);

// Why no agent answers at the paths; `error` is the system's number for the last of them.
std::string agentProblem(const std::vector<std::string>& paths, int error);

// One thread uses it. SIGINT and SIGTERM end the lines instead of the process from its making on.
class AgentLines {
 public:
  // Asks the agent at the first of the paths for its trace. Throws AgentError.
  AgentLines(const std::vector<std::string>& paths, bool secrets);

  // The next line, without its end; none when the agent has ended or a signal has come.
  std::optional<std::string> next();

 private:
  // Whether there is more to read.
  bool receive();

  platform::ScopedFd signals_;
  platform::ScopedFd agent_;
  std::string received_;
};

}  // namespace zelta::trace
