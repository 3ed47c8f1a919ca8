// Sockets and processes that bypass the pipes, as another program would use a path.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/files/scoped_fd_linux.h"

namespace zelta::test {

// A stream socket bound to the path; with a queue it listens. None if the path is taken.
platform::ScopedFd bindSocket(const std::string& path, int queue = -1);
// One attempt. The error number, 0 if it connected.
int connectSocket(const std::string& path, platform::ScopedFd* socket, bool blocking = true);
// True if no client waits to be accepted by a listening socket.
bool nobodyWaits(const platform::ScopedFd& listening);

// Runs a function in a forked process and returns its result (0 to 255), -1 if it did not end
// by itself. The process exits at once, as if killed: no destructor runs.
int inProcess(const std::function<int()>& body);

// Makes the calling process (a forked one) that user with those groups for good. Needs root.
bool becomeUser(uid_t user, gid_t group, const std::vector<gid_t>& groups = {});

// A forked process that runs `body` and then waits until this object is destroyed.
class OtherProcess {
 public:
  // Returns when `body` has run.
  explicit OtherProcess(const std::function<bool()>& body);
  ~OtherProcess();
  OtherProcess(const OtherProcess&) = delete;
  OtherProcess& operator=(const OtherProcess&) = delete;

  // The result of `body`.
  bool ready() const { return ready_; }

 private:
  platform::ScopedFd release_;
  pid_t process_ = -1;
  bool ready_ = false;
};

}  // namespace zelta::test
