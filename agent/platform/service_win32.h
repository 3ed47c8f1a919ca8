// The agent as a service of Windows: one for each reader, under the local service account, which
// the driver admits to its pipes.
#pragma once

#include <windows.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "agent/program/options.h"

namespace zelta::agent {

// "ZeltaAgent" and the reader's index; also the service's source in the event log.
std::string serviceName(std::uint32_t reader);

// Words as one command line, from which the C run-time makes the same words again.
std::string commandLine(const std::vector<std::string>& words);

// These two need the rights of an administrator and throw std::runtime_error with a message for
// people.

// Makes a service that runs the agent with these options, from the system's next start on, and
// again after a failure. Does not start it.
void installService(const Options& options);
// Stops the service, if it runs, and removes it.
void removeService(std::uint32_t reader);

// The service body's interface to the system's service manager.
class ServiceRun {
 public:
  virtual ~ServiceRun() = default;
  // Signalled when the service, or the system, is to stop.
  virtual HANDLE endRequested() const = 0;
  // The service has started.
  virtual void ready() = 0;
  // Ends the process with this exit code, whatever its threads do.
  [[noreturn]] virtual void endProcess(int exitCode) = 0;
};

// Runs the body on a thread of the system's and returns its exit code, which the service manager is
// told, too. For a process that the service manager has started; throws std::runtime_error in any
// other. The body must not throw. Once.
int runService(std::uint32_t reader, std::function<int(ServiceRun&)> body);

}  // namespace zelta::agent
