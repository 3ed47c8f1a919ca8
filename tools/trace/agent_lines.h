// The lines that a running agent sends to whoever follows its trace.
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

// Which agent is meant.
struct AgentPlace {
  std::string control;  // path of its control socket; empty: wherever that of the reader's agent is
  std::uint32_t reader = 0;

  // Where the control socket may be.
  std::vector<std::string> paths() const;
};

// Why no agent answers there; `error` is the system's number.
std::string agentProblem(const AgentPlace& place, int error);

// One thread uses it. SIGINT and SIGTERM end the lines instead of the process from its making on.
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
