// A wait for a file descriptor that another thread can end. Not sd-event: a command runs on the
// thread that has read it, after one poll; a loop would add the epoll's and the timer's calls.
#pragma once

#include <chrono>
#include <optional>

#include "agent/link/pipe_client_port.h"
#include "platform/files/scoped_fd_linux.h"

namespace zelta::agent {

// `fd`, which a system call has just given. Throws std::system_error with `what` if it failed.
platform::ScopedFd checkedFd(int fd, const char* what);

class StopEvent {
 public:
  enum class Reason { kReady, kStopped, kTimedOut, kFailed };
  struct Waited {
    Reason reason;
    short ready = 0;  // if kReady: which of the awaited events came, and POLLERR, POLLHUP
  };

  // Throws std::system_error with `what` for lack of handles.
  explicit StopEvent(const char* what = "eventfd");

  // Makes every wait, current and later, return at once. Any thread; needs no memory.
  void stop() const;
  // Waits until poll finds one of `events` at `fd`, until `stop`, or until `deadline` if there is
  // one. kFailed leaves the reason in errno.
  Waited waitFor(int fd, short events,
                 std::optional<SteadyClock::time_point> deadline = std::nullopt) const;
  // Readable after `stop`.
  int fd() const { return event_.get(); }

 private:
  platform::ScopedFd event_;
};

// Milliseconds until `deadline` as poll takes them: rounded up, -1 for none.
int pollTimeout(std::optional<SteadyClock::time_point> deadline);

}  // namespace zelta::agent
