// Runs an agent on a thread of its own, for the program.
#pragma once

#include <future>

#include "agent/program/agent.h"
#include "agent/program/failure.h"
#include "agent/program/log.h"

namespace zelta::agent {

class AgentRun {
 public:
  // Runs `agent`, which has been started, from now on; it and `onFailure` outlive this object.
  AgentRun(Agent& agent, const OnFailure& onFailure);
  // Stops the agent and waits for it, however long its card takes.
  ~AgentRun();
  AgentRun(const AgentRun&) = delete;
  AgentRun& operator=(const AgentRun&) = delete;

  // Stops the agent and returns the program's exit code, which `failure` decides. Ends the process
  // itself if a card that cannot be interrupted holds up the agent's end.
  int stop(const FailureNote& failure, Log& log);

 private:
  Agent& agent_;
  std::future<void> ran_;
};

}  // namespace zelta::agent
