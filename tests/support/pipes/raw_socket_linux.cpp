#include "tests/support/pipes/raw_socket_linux.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace zelta::test {

namespace {

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  return address;
}

}  // namespace

platform::ScopedFd bindSocket(const std::string& path, int queue) {
  platform::ScopedFd made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = addressOf(path);
  if (bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      (queue >= 0 && listen(made.get(), queue) != 0)) {
    made.reset();
  }
  return made;
}

int connectSocket(const std::string& path, platform::ScopedFd* made, bool blocking) {
  made->reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (blocking ? 0 : SOCK_NONBLOCK), 0));
  const sockaddr_un address = addressOf(path);
  return connect(made->get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0
             ? 0
             : errno;
}

bool nobodyWaits(const platform::ScopedFd& listening) {
  pollfd state{listening.get(), POLLIN, 0};
  return poll(&state, 1, 0) == 0;
}

int inProcess(const std::function<int()>& body) {
  const pid_t process = fork();
  if (process == 0) _exit(body());
  int status = 0;
  if (process < 0 || waitpid(process, &status, 0) != process) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool becomeUser(uid_t user, gid_t group, const std::vector<gid_t>& groups) {
  return setgroups(groups.size(), groups.data()) == 0 && setgid(group) == 0 && setuid(user) == 0;
}

OtherProcess::OtherProcess(const std::function<bool()>& body) {
  int told[2];
  int release[2];
  if (pipe2(told, O_CLOEXEC) != 0 || pipe2(release, O_CLOEXEC) != 0) return;
  platform::ScopedFd hear(told[0]);
  platform::ScopedFd tell(told[1]);
  platform::ScopedFd wait(release[0]);
  release_.reset(release[1]);
  process_ = fork();
  if (process_ == 0) {
    release_.reset();
    char byte = body() ? 1 : 0;
    const bool heard = ::write(tell.get(), &byte, 1) == 1;
    // Ends when the other side has closed.
    const bool released = ::read(wait.get(), &byte, 1) == 0;
    _exit(heard && released ? 0 : 1);
  }
  tell.reset();
  char byte = 0;
  ready_ = ::read(hear.get(), &byte, 1) == 1 && byte == 1;
}

OtherProcess::~OtherProcess() {
  release_.reset();
  if (process_ > 0) waitpid(process_, nullptr, 0);
}

}  // namespace zelta::test
