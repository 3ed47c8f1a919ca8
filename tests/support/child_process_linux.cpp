#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>

#include "platform/files/scoped_fd_linux.h"
#include "tests/support/child_process.h"

namespace zelta::test {

using platform::ScopedFd;

class ChildProcess::LinuxSystem final : public ChildProcess::System {
 public:
  LinuxSystem(pid_t process, ScopedFd stream) : process_(process), stream_(std::move(stream)) {}

  unsigned long id() const override { return static_cast<unsigned long>(process_); }

  bool write(const std::string& bytes) override {
    return send(stream_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }

  std::string read() override {
    std::array<char, 4096> buffer{};
    ssize_t count = 0;
    do {
      count = ::read(stream_.get(), buffer.data(), buffer.size());
    } while (count < 0 && errno == EINTR);
    return std::string(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
  }

  void kill() override {
    if (process_ != 0) ::kill(process_, SIGKILL);
  }

  int wait() override {
    int status = 0;
    while (waitpid(process_, &status, 0) < 0 && errno == EINTR) {
    }
    process_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t process_;
  const ScopedFd stream_;
};

std::unique_ptr<ChildProcess::System> ChildProcess::start(
    const std::string& program, const std::vector<std::string>& arguments) {
  // A socket, because writing to a pipe whose reader is gone raises a signal.
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw std::runtime_error("no stream for " + program);
  }
  ScopedFd mine(ends[0]);
  const ScopedFd its(ends[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_adddup2(&actions, its.get(), stream);
  }
  std::vector<std::string> all = {program};
  all.insert(all.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  for (std::string& argument : all) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  pid_t process = 0;
  const int result =
      posix_spawn(&process, program.c_str(), &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (result != 0) throw std::runtime_error("cannot start " + program);
  return std::make_unique<LinuxSystem>(process, std::move(mine));
}

}  // namespace zelta::test
