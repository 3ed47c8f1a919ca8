// Moves bytes through a pipe end and waits until they have been read.
#include <linux/sockios.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "platform/pipe/pipe_end_linux.h"
#include "platform/process/error.h"
#include "platform/process/error_linux.h"

namespace zelta::platform {

namespace {

// The kernel counts unread data in whole buffers, each with some hundred bytes of overhead. A
// buffer that was just read counts 1 until it is freed. The kernel wakes waiters before that 1 is
// taken off and not again afterwards, so waiting for 0 could last for ever. A count below one
// buffer means that everything was read.
constexpr int kLessThanABuffer = 256;

// How much of the written bytes a client has read.
enum class Progress {
  kReading,  // it has not read everything
  kDone,     // it has
  kLeft,     // it has gone; the kernel knows of no unread bytes
  kLost      // it has gone with bytes unread
};

// The count is read first: a peer that closes with bytes unread reports the loss before the bytes
// vanish from the count, and a small count alone does not tell it from one that has read.
Progress progressOf(int client, bool hungUp) {
  int unread = 0;
  if (ioctl(client, SIOCOUTQ, &unread) != 0) return Progress::kLost;
  if (unread >= kLessThanABuffer) return hungUp ? Progress::kLost : Progress::kReading;
  pollfd state{client, 0, 0};
  poll(&state, 1, 0);
  if ((state.revents & POLLERR) != 0) return Progress::kLost;
  return (state.revents & POLLHUP) != 0 ? Progress::kLeft : Progress::kDone;
}

// Edge-triggered, the kernel reports writability anew each time the peer has finished a buffer,
// if the socket is writable then; when the last buffer is finished it always is. An edge that
// nobody has taken stays, so one from before the sleep is not missed. Returns whether the client
// has hung up.
bool sleepUntilChanged(int poller) {
  epoll_event events[2] = {};
  const int count = epoll_wait(poller, events, std::size(events), -1);
  if (count < 0) return errno != EINTR;
  return std::any_of(events, events + count, [](const epoll_event& event) {
    return (event.events & (EPOLLHUP | EPOLLERR)) != 0;
  });
}

}  // namespace

std::uint32_t PipeEnd::readAll(const Operation& operation, std::uint8_t* data, std::size_t size) {
  while (size > 0) {
    const ssize_t count = recv(operation.client, data, size, MSG_DONTWAIT);
    if (count > 0) {
      data += count;
      size -= static_cast<std::size_t>(count);
      continue;
    }
    if (count == 0) return ended(operation, error::kBrokenPipe);
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return failed(operation, errno);
    if (const std::uint32_t error = sleep(operation, operation.client, POLLIN)) return error;
  }
  return error::kSuccess;
}

std::uint32_t PipeEnd::writeAll(const Operation& operation, const std::uint8_t* data,
                                std::size_t size) {
  while (size > 0) {
    const ssize_t count = send(operation.client, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count >= 0) {
      data += count;
      size -= static_cast<std::size_t>(count);
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return failed(operation, errno);
    if (const std::uint32_t error = sleep(operation, operation.client, POLLOUT)) return error;
  }
  return error::kSuccess;
}

std::uint32_t PipeEnd::waitUntilRead(const Operation& operation) {
  bool hungUp = false;
  for (;;) {
    switch (progressOf(operation.client, hungUp)) {
      case Progress::kDone:
        return error::kSuccess;
      case Progress::kLeft:
        return left(operation);
      case Progress::kLost:
        return lost(operation);
      case Progress::kReading:
        break;
    }
    if (const std::uint32_t error = prepareToSleep(operation)) return error;
    hungUp = sleepUntilChanged(poller_.get()) || hungUp;
    if (const std::uint32_t error = ended(operation, error::kSuccess)) return error;
  }
}

}  // namespace zelta::platform
