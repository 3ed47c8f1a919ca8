// Runs the program's service on its own thread.
#pragma once

#include <future>

#include "agent/program/failure.h"
#include "agent/program/log.h"
#include "agent/program/service.h"

namespace zelta::agent {

class AgentRun {
 public:
  // Runs `service`, which has been started, from now on; it and `onFailure` outlive this object.
  AgentRun(Service& service, const OnFailure& onFailure);
  // Stops the service and waits for it, however long its card takes.
  ~AgentRun();
  AgentRun(const AgentRun&) = delete;
  AgentRun& operator=(const AgentRun&) = delete;

  // Stops the service and returns the program's exit code, which `failure` decides. Ends the
  // process itself if a card that cannot be interrupted holds up the service's end.
  int stop(const FailureNote& failure, Log& log);

 private:
  Service& service_;
  std::future<void> ran_;
};

}  // namespace zelta::agent
