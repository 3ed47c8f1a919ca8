// Not sd-event: `flush` and `awaitCommand` wait on the thread that serves the command.
#include "agent/platform/pipe_connection_linux.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "contract/bytes.h"

namespace zelta::agent {

namespace {

void addTo(int epoll, int fd, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = fd;
  if (epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0) {
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
  }
}

// Whether the peer has read everything. The kernel wakes the writer before it has taken the last
// unit off the count, so an empty queue may count as 1. Any queued write counts as more.
bool nothingUnread(int socket) {
  int unread = 0;
  return ioctl(socket, SIOCOUTQ, &unread) == 0 && unread <= 1;
}

// Whether the socket holds more than has been read here.
bool moreArrived(int socket) {
  int arrived = 0;
  return ioctl(socket, FIONREAD, &arrived) == 0 && arrived > 0;
}

// Takes `size` bytes off the front of `count` parts; how many parts are left, at the end.
std::size_t advance(iovec* parts, std::size_t count, std::size_t size) {
  std::size_t done = 0;
  while (done < count && size >= parts[done].iov_len) size -= parts[done++].iov_len;
  if (done < count) {
    parts[done].iov_base = static_cast<char*>(parts[done].iov_base) + size;
    parts[done].iov_len -= size;
  }
  return count - done;
}

}  // namespace

SocketConnection::SocketConnection(platform::ScopedFd socket)
    : socket_(std::move(socket)), taken_(checkedFd(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")) {
  addTo(taken_.get(), socket_.get(), EPOLLOUT | EPOLLRDHUP | EPOLLET);
  addTo(taken_.get(), cancel_.fd(), EPOLLIN);
  // A receive that sleeps costs one system call; poll and another receive would be three.
  if (fcntl(socket_.get(), F_SETFL, 0) != 0) {
    throw std::system_error(errno, std::generic_category(), "fcntl");
  }
}

void SocketConnection::cancel() {
  cancelled_ = true;
  cancel_.stop();
  // Ends a read that sleeps. The driver notices now, not when the last descriptor of the socket is
  // closed, and still reads what it was sent.
  shutdown(socket_.get(), SHUT_RDWR);
}

SocketConnection::Waited SocketConnection::waitFor(
    short events, std::optional<SteadyClock::time_point> deadline) const {
  const StopEvent::Waited waited = cancel_.waitFor(socket_.get(), events, deadline);
  switch (waited.reason) {
    case StopEvent::Reason::kReady:  // `cancel` makes the socket readable, too
      return {cancelled_ ? IoResult::kCancelled : IoResult::kDone, waited.ready};
    case StopEvent::Reason::kStopped:
      return {IoResult::kCancelled, 0};
    case StopEvent::Reason::kTimedOut:
      return {IoResult::kTimedOut, 0};
    case StopEvent::Reason::kFailed:
      break;
  }
  return {IoResult::kClosed, 0};
}

IoResult SocketConnection::awaitCommand() {
  pollfd state{socket_.get(), POLLIN, 0};  // `cancel` makes the socket readable
  while (poll(&state, 1, -1) < 0) {
    if (errno != EINTR) return IoResult::kClosed;
  }
  if (cancelled_) return IoResult::kCancelled;
  if ((state.revents & POLLHUP) != 0) return IoResult::kClosed;
  return nothingUnread(socket_.get()) ? IoResult::kDone : IoResult::kGivenUp;
}

IoResult SocketConnection::read(void* data, std::uint32_t size,
                                std::optional<SteadyClock::time_point> deadline) {
  auto* bytes = static_cast<std::uint8_t*>(data);
  std::uint32_t done = 0;
  if (!deadline) {
    // A receive that sleeps would be woken each time the driver reads what was posted.
    const Waited waited = waitFor(POLLIN, std::nullopt);
    if (waited.result != IoResult::kDone) return waited.result;
  }
  while (done < size) {
    const bool waits = !deadline || limitReads(*deadline - SteadyClock::now());
    const ssize_t count =
        recv(socket_.get(), bytes + done, size - done, waits ? MSG_WAITALL : MSG_DONTWAIT);
    if (cancelled_) return IoResult::kCancelled;
    if (count > 0) {
      done += static_cast<std::uint32_t>(count);
    } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
      return IoResult::kClosed;
    } else if (errno == EAGAIN && !waits) {
      return IoResult::kTimedOut;
    }
  }
  return IoResult::kDone;
}

bool SocketConnection::limitReads(SteadyClock::duration limit) {
  const auto units = std::chrono::ceil<LimitUnit>(limit);
  if (units <= LimitUnit::zero()) return false;
  if (units == readLimit_) return true;
  const auto seconds = std::chrono::floor<std::chrono::seconds>(units);
  const timeval time{seconds.count(), std::chrono::microseconds(units - seconds).count()};
  if (setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time) != 0) return false;
  readLimit_ = units;
  return true;
}

IoResult SocketConnection::answer(const Bytes& bytes, SteadyClock::time_point deadline) {
  if (moreArrived(socket_.get())) return IoResult::kGivenUp;
  auto length = toLittleEndian(static_cast<std::uint32_t>(bytes.size()));
  std::array<iovec, 2> parts{
      {{length.data(), length.size()}, {const_cast<std::uint8_t*>(bytes.data()), bytes.size()}}};
  return send(parts.data(), parts.size(), deadline, true);
}

IoResult SocketConnection::post(const void* data, std::uint32_t size,
                                std::optional<SteadyClock::time_point> deadline) {
  iovec part{const_cast<void*>(data), size};
  return send(&part, 1, deadline, false);
}

bool SocketConnection::tryPost(const void* data, std::uint32_t size) {
  return !cancelled_ && ::send(socket_.get(), data, size, MSG_NOSIGNAL | MSG_DONTWAIT) ==
                            static_cast<ssize_t>(size);
}

IoResult SocketConnection::send(iovec* parts, std::size_t count,
                                std::optional<SteadyClock::time_point> deadline, bool isAnswer) {
  const short answered = isAnswer ? POLLIN : 0;
  for (;;) {
    if (cancelled_) return IoResult::kCancelled;
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    const ssize_t sent = sendmsg(socket_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      const std::size_t left = advance(parts, count, static_cast<std::size_t>(sent));
      if (left == 0) return IoResult::kDone;
      parts += count - left;
      count = left;
    } else if (errno == EAGAIN) {
      const Waited waited = waitFor(static_cast<short>(POLLOUT | answered), deadline);
      if (waited.result != IoResult::kDone) return waited.result;
      if ((waited.ready & answered) == 0) continue;
      return moreArrived(socket_.get()) ? IoResult::kGivenUp : IoResult::kClosed;
    } else if (errno != EINTR) {
      return IoResult::kClosed;
    }
  }
}

IoResult SocketConnection::flush() {
  for (;;) {
    if (nothingUnread(socket_.get())) return IoResult::kDone;
    epoll_event event{};
    const int ready = epoll_wait(taken_.get(), &event, 1, -1);
    if (ready < 0 && errno != EINTR) return IoResult::kClosed;
    if (ready <= 0) continue;
    if (cancelled_) return IoResult::kCancelled;
    if ((event.events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) != 0) return IoResult::kClosed;
  }
}

}  // namespace zelta::agent
