// The agent's program, run as a process of its own.
#pragma once

#include <sys/types.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/files/scoped_fd_linux.h"
#include "tests/agent/program/running_agent.h"

namespace zelta::test {

// How a process ended and what it said.
struct Ended {
  int exitCode = -1;  // 128 + signal where one ended it
  std::string output;
  std::string error;
};

// Runs the program with these arguments until it ends.
Ended runProgram(const std::vector<std::string>& arguments);

// The program as it serves; its pipes are those of the environment. It ends with this object.
class AgentProcess {
 public:
  // `folder` takes the control socket and the readiness socket. Where `waitReady` is set, returns
  // when the program has said that it is ready; throws where it ends before.
  AgentProcess(const PipeFolder& folder, std::vector<std::string> arguments, bool waitReady = true);
  ~AgentProcess();
  AgentProcess(const AgentProcess&) = delete;
  AgentProcess& operator=(const AgentProcess&) = delete;

  const std::string& control() const { return control_; }
  void signal(int number);
  // From now on it gets no further file descriptors.
  void refuseHandles();
  // Until it has ended; the exit code, or 128 + the signal that ended it.
  int wait();
  // Lines of its standard error, as they come.
  LogLines& log() { return lines_; }

  // Runs `zelta-agent ctl` for it.
  Ended ctl(std::vector<std::string> arguments) const;

 private:
  void readError();

  std::string control_;
  LogLines lines_;
  platform::ScopedFd error_;
  pid_t process_ = 0;
  int exitCode_ = -1;
  std::thread reader_;
};

}  // namespace zelta::test
