// Not sd-event: the one wait, for the end of a program, is on the thread that ends it.
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "agent/platform/stop_event_linux.h"
#include "agent/remote/dialer.h"
#include "platform/files/scoped_fd_linux.h"

extern char** environ;

namespace zelta::agent {

namespace {

using platform::ScopedFd;

// How long a program may take to end once its line is gone, and again once it was asked to
// terminate. Both together are less than the program allows for its own end.
constexpr std::chrono::milliseconds kEndTime{1000};
constexpr std::chrono::milliseconds kTerminateTime{500};
constexpr int kEndedBySignal = 128;  // and the signal's number, as a shell has it

// How a child begins: with `line` as its standard input and output, and with signals as in any
// program that a user starts, except that Ctrl-C is blocked. Its parent gets that and then ends the
// child in good order.
class SpawnSetup {
 public:
  explicit SpawnSetup(int line) {
    posix_spawnattr_init(&attributes_);
    posix_spawn_file_actions_init(&actions_);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGINT);
    posix_spawnattr_setsigmask(&attributes_, &blocked);
    sigset_t restored;
    sigemptyset(&restored);
    sigaddset(&restored, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes_, &restored);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawn_file_actions_adddup2(&actions_, line, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions_, line, STDOUT_FILENO);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attributes_);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  const posix_spawnattr_t* attributes() const { return &attributes_; }
  const posix_spawn_file_actions_t* actions() const { return &actions_; }

 private:
  posix_spawnattr_t attributes_{};
  posix_spawn_file_actions_t actions_{};
};

// A child process; the destructor ends and reaps it if that has not been done.
class Child {
 public:
  explicit Child(pid_t id) : id_(id), ended_(static_cast<int>(syscall(SYS_pidfd_open, id, 0))) {}
  ~Child() { end(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Its exit code.
  int end() {
    if (id_ <= 0) return 0;
    if (!endsWithin(kEndTime)) kill(id_, SIGTERM);
    if (!endsWithin(kTerminateTime)) kill(id_, SIGKILL);
    int status = 0;
    while (waitpid(id_, &status, 0) < 0 && errno == EINTR) {
    }
    id_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : kEndedBySignal + WTERMSIG(status);
  }

 private:
  bool endsWithin(std::chrono::milliseconds time) const {
    const auto deadline = SteadyClock::now() + time;
    for (;;) {
      pollfd wait{ended_.get(), POLLIN, 0};
      const int ready = poll(&wait, 1, pollTimeout(deadline));
      if (ready >= 0) return ready > 0;
      if (errno != EINTR) return false;
    }
  }

  pid_t id_;
  const ScopedFd ended_;  // readable when the process has ended
};

class SshCall final : public DialedCall {
 public:
  SshCall(std::unique_ptr<Line> line, pid_t child) : line_(std::move(line)), child_(child) {}

  Line& line() override { return *line_; }
  int hangUp() override {
    line_.reset();
    return child_.end();
  }

 private:
  std::unique_ptr<Line> line_;
  Child child_;
};

class SshDialer final : public Dialer {
 public:
  explicit SshDialer(std::vector<std::string> command) : command_(std::move(command)) {}

  std::unique_ptr<DialedCall> dial() override {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
      throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    const ScopedFd theirs(ends[1]);
    std::unique_ptr<Line> line = makeDescriptorLine(ends[0], ends[0]);
    return std::make_unique<SshCall>(std::move(line), spawn(theirs.get()));
  }

 private:
  pid_t spawn(int line) const {
    std::vector<char*> words;
    for (const std::string& word : command_) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    const SpawnSetup setup(line);
    pid_t child = 0;
    const int error = posix_spawnp(&child, words.front(), setup.actions(), setup.attributes(),
                                   words.data(), environ);
    if (error == 0) return child;
    throw std::runtime_error("cannot start " + command_.front() + ": " +
                             std::generic_category().message(error));
  }

  const std::vector<std::string> command_;
};

}  // namespace

std::unique_ptr<Dialer> makeSshDialer(std::vector<std::string> command) {
  return std::make_unique<SshDialer>(std::move(command));
}

}  // namespace zelta::agent
