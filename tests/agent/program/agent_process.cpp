#include "tests/agent/program/agent_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace zelta::test {

namespace {

using platform::ScopedFd;

struct Pipe {
  Pipe() {
    std::array<int, 2> made{};
    if (pipe2(made.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    readEnd.reset(made[0]);
    writeEnd.reset(made[1]);
  }
  ScopedFd readEnd;
  ScopedFd writeEnd;
};

// -1 leaves the stream as it is.
pid_t start(const std::vector<std::string>& arguments, int output, int error) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (output >= 0) posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  if (error >= 0) posix_spawn_file_actions_adddup2(&actions, error, STDERR_FILENO);
  std::vector<std::string> all = {ZELTA_AGENT_PROGRAM};
  all.insert(all.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  for (std::string& argument : all) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  pid_t process = 0;
  const int result =
      posix_spawn(&process, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (result != 0) throw std::runtime_error("cannot start " + all[0]);
  return process;
}

int waitFor(pid_t process) {
  int status = 0;
  while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string readAll(const ScopedFd& from) {
  std::string text;
  std::array<char, 1024> buffer{};
  for (ssize_t count = 0; (count = read(from.get(), buffer.data(), buffer.size())) > 0;) {
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return text;
}

ScopedFd openNotifySocket(const std::string& path) {
  unlink(path.c_str());
  ScopedFd made(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("cannot bind " + path);
  }
  return made;
}

// False: the other descriptor ended before.
bool waitForReady(const ScopedFd& notify, const ScopedFd& ended) {
  for (;;) {
    std::array<pollfd, 2> waits{{{notify.get(), POLLIN, 0}, {ended.get(), 0, 0}}};
    if (poll(waits.data(), waits.size(), -1) < 0) continue;
    if (waits[0].revents == 0) return false;
    std::array<char, 256> message{};
    const ssize_t size = read(notify.get(), message.data(), message.size() - 1);
    if (size > 0 && std::strstr(message.data(), "READY=1") != nullptr) return true;
  }
}

}  // namespace

Ended runProgram(const std::vector<std::string>& arguments) {
  Pipe output;
  Pipe error;
  const pid_t process = start(arguments, output.writeEnd.get(), error.writeEnd.get());
  output.writeEnd.reset();
  error.writeEnd.reset();
  Ended ended;
  std::thread reader([&] { ended.error = readAll(error.readEnd); });
  ended.output = readAll(output.readEnd);
  reader.join();
  ended.exitCode = waitFor(process);
  return ended;
}

AgentProcess::AgentProcess(const PipeFolder& folder, std::vector<std::string> arguments,
                           bool waitReady)
    : control_(folder.file("ctl")) {
  const std::string notifyPath = folder.file("notify");
  const ScopedFd notify = openNotifySocket(notifyPath);
  const ScopedVariable variable("NOTIFY_SOCKET", notifyPath);
  arguments.insert(arguments.end(), {"--control", control_});
  Pipe error;
  process_ = start(arguments, -1, error.writeEnd.get());
  error.writeEnd.reset();
  Pipe alive;  // closed by the end of the reading thread, which is the end of the process
  error_ = std::move(error.readEnd);
  reader_ = std::thread([this, end = std::make_shared<ScopedFd>(std::move(alive.writeEnd))] {
    readError();
    end->reset();
  });
  if (waitReady && !waitForReady(notify, alive.readEnd)) wait();
  if (waitReady && process_ == 0) {
    throw std::runtime_error("the agent ended with " + std::to_string(exitCode_));
  }
}

AgentProcess::~AgentProcess() {
  if (process_ != 0) kill(process_, SIGKILL);
  wait();
}

void AgentProcess::signal(int number) { kill(process_, number); }

void AgentProcess::refuseHandles() {
  // The standard streams have these; with fewer, polling two descriptors fails, too.
  const rlimit few = {3, 3};
  if (prlimit(process_, RLIMIT_NOFILE, &few, nullptr) != 0) throw std::runtime_error("no limit");
}

int AgentProcess::wait() {
  if (process_ != 0) exitCode_ = waitFor(process_);
  process_ = 0;
  if (reader_.joinable()) reader_.join();
  return exitCode_;
}

void AgentProcess::readError() {
  const agent::Log::Sink sink = lines_.sink();
  std::string line;
  char c = 0;
  while (read(error_.get(), &c, 1) == 1) {
    if (c != '\n') {
      line += c;
      continue;
    }
    sink(agent::LogLevel::kInfo, line);
    line.clear();
  }
}

Ended AgentProcess::ctl(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), "ctl");
  arguments.insert(arguments.end(), {"--control", control_});
  return runProgram(arguments);
}

}  // namespace zelta::test
