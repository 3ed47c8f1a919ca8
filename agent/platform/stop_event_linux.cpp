#include "agent/platform/stop_event_linux.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <system_error>

namespace zelta::agent {

platform::ScopedFd checkedFd(int fd, const char* what) {
  if (fd < 0) throw std::system_error(errno, std::generic_category(), what);
  return platform::ScopedFd(fd);
}

StopEvent::StopEvent(const char* what)
    : event_(checkedFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), what)) {}

void StopEvent::stop() const { eventfd_write(event_.get(), 1); }

StopEvent::Waited StopEvent::waitFor(int fd, short events,
                                     std::optional<SteadyClock::time_point> deadline) const {
  for (;;) {
    std::array<pollfd, 2> waits{{{event_.get(), POLLIN, 0}, {fd, events, 0}}};
    const int ready = poll(waits.data(), waits.size(), pollTimeout(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return {Reason::kFailed};
    if (ready == 0) return {Reason::kTimedOut};
    if (waits[0].revents != 0) return {Reason::kStopped};
    return {Reason::kReady, waits[1].revents};
  }
}

int pollTimeout(std::optional<SteadyClock::time_point> deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - SteadyClock::now());
  const auto most = std::chrono::milliseconds(std::numeric_limits<int>::max());
  return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), most).count());
}

}  // namespace zelta::agent
