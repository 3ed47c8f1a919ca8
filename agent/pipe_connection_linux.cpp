#include "agent/pipe_connection_linux.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

namespace zelta::agent {

namespace {

platform::ScopedFd checked(int fd, const char* what) {
  if (fd < 0) throw std::system_error(errno, std::generic_category(), what);
  return platform::ScopedFd(fd);
}

void addTo(int epoll, int fd, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  if (epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0) {
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
  }
}

// Whether the peer has read everything. The kernel wakes the writer while one unit of the count is
// still kept, so a count of 1 is what an empty queue looks like then; no queued write counts so
// low.
bool nothingUnread(int socket) {
  int unread = 0;
  return ioctl(socket, SIOCOUTQ, &unread) == 0 && unread <= 1;
}

}  // namespace

int pollTimeout(std::optional<SteadyClock::time_point> deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - SteadyClock::now());
  const auto most = std::chrono::milliseconds(std::numeric_limits<int>::max());
  return static_cast<int>(std::clamp(left, std::chrono::milliseconds(0), most).count());
}

SocketConnection::SocketConnection(platform::ScopedFd socket)
    : socket_(std::move(socket)),
      cancel_(checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd")),
      taken_(checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")) {
  addTo(taken_.get(), socket_.get(), EPOLLOUT | EPOLLRDHUP | EPOLLET);
  addTo(taken_.get(), cancel_.get(), EPOLLIN);
}

void SocketConnection::cancel() { eventfd_write(cancel_.get(), 1); }

IoResult SocketConnection::waitFor(short events, std::optional<SteadyClock::time_point> deadline) {
  for (;;) {
    std::array<pollfd, 2> waits{{{cancel_.get(), POLLIN, 0}, {socket_.get(), events, 0}}};
    const int ready = poll(waits.data(), waits.size(), pollTimeout(deadline));
    if (ready < 0 && errno != EINTR) return IoResult::Closed;
    if (ready < 0) continue;
    if (ready == 0) return IoResult::TimedOut;
    return waits[0].revents != 0 ? IoResult::Cancelled : IoResult::Done;
  }
}

IoResult SocketConnection::read(void* data, std::uint32_t size,
                                std::optional<SteadyClock::time_point> deadline) {
  auto* bytes = static_cast<std::uint8_t*>(data);
  std::uint32_t done = 0;
  while (done < size) {
    const IoResult ready = waitFor(POLLIN, deadline);
    if (ready != IoResult::Done) return ready;
    const ssize_t count = recv(socket_.get(), bytes + done, size - done, 0);
    if (count > 0) {
      done += static_cast<std::uint32_t>(count);
    } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
      return IoResult::Closed;
    }
  }
  return IoResult::Done;
}

IoResult SocketConnection::write(const void* data, std::uint32_t size,
                                 std::optional<SteadyClock::time_point> deadline) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  std::uint32_t done = 0;
  while (done < size) {
    const IoResult ready = waitFor(POLLOUT, deadline);
    if (ready != IoResult::Done) return ready;
    const ssize_t count = send(socket_.get(), bytes + done, size - done, MSG_NOSIGNAL);
    if (count >= 0) {
      done += static_cast<std::uint32_t>(count);
    } else if (errno != EAGAIN && errno != EINTR) {
      return IoResult::Closed;
    }
  }
  return IoResult::Done;
}

IoResult SocketConnection::flush() {
  for (;;) {
    if (nothingUnread(socket_.get())) return IoResult::Done;
    epoll_event event{};
    const int ready = epoll_wait(taken_.get(), &event, 1, -1);
    if (ready < 0 && errno != EINTR) return IoResult::Closed;
    if (ready <= 0) continue;
    if (event.data.fd == cancel_.get()) return IoResult::Cancelled;
    if ((event.events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0) return IoResult::Closed;
  }
}

}  // namespace zelta::agent
