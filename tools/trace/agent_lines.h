// The lines of a running agent's trace.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/files/scoped_fd_linux.h"

namespace zelta::trace {

// The agent cannot be asked, or sends no trace. The message is for people; what the agent said may
// be a part of it.
class AgentError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Identifies an agent.
struct AgentPlace {
  std::string control;  // path of its control socket; empty: that of the reader's agent
  std::uint32_t reader = 0;

  // Candidate paths of the control socket.
  std::vector<std::string> paths() const;
};

// Why no agent answers there; `error` is the system's number.
std::string agentProblem(const AgentPlace& place, int error);

// For one thread. Once this exists, SIGINT and SIGTERM end the lines instead of the process.
class AgentLines {
 public:
  // Asks the agent for its trace. Throws AgentError.
  AgentLines(const AgentPlace& place, bool secrets);

  // The next line, without its end; none when the agent has ended or a signal has come.
  // Throws AgentError if a line is longer than any record.
  std::optional<std::string> next();

 private:
  // Whether there is more to read.
  bool receive();

  platform::ScopedFd signals_;
  platform::ScopedFd agent_;
  std::string received_;
};

}  // namespace zelta::trace
