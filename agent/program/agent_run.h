// Runs the program's service on its own thread.
#pragma once

#include <cstdlib>
#include <functional>
#include <future>

#include "agent/program/failure.h"
#include "agent/program/log.h"
#include "agent/program/service.h"

namespace zelta::agent {

class AgentRun {
 public:
  // Starts to run `service`, which has been started; it and `onFailure` outlive this object.
  AgentRun(Service& service, const OnFailure& onFailure);
  // Stops the service and waits for it, however long its card takes.
  ~AgentRun();
  AgentRun(const AgentRun&) = delete;
  AgentRun& operator=(const AgentRun&) = delete;

  // Ends the process with this exit code.
  using Leave = std::function<void(int exitCode)>;

  // Stops the service and returns the program's exit code, which `failure` decides. Leaves if a
  // card that cannot be interrupted holds up the service's end.
  int stop(const FailureNote& failure, Log& log, const Leave& leave = std::_Exit);

 private:
  Service& service_;
  std::future<void> ran_;
};

}  // namespace zelta::agent
