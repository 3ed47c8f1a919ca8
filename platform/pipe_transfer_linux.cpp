// Moving bytes through a pipe end, and waiting until they have been read.
#include <linux/sockios.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <optional>

#include "platform/errno_linux.h"
#include "platform/error.h"
#include "platform/pipe_end_linux.h"

namespace zelta::platform {

namespace {

// The kernel's count of what the peer has not read is in whole buffers, and each buffer counts
// some hundred bytes of its own on top. One that the peer has just read counts 1 until it is
// freed, and the kernel wakes waiters before it takes that last 1 off and not again. So a small
// rest means that everything was read, and waiting for 0 could wait for ever.
constexpr int kLessThanABuffer = 256;

// The error number that ends a flush, 0 where the peer has read everything; nothing while it has
// not. The count is asked for first: a peer that closes with bytes unread reports the loss before
// the bytes vanish from the count.
std::optional<std::uint32_t> outcome(int client) {
  int unread = 0;
  if (ioctl(client, SIOCOUTQ, &unread) != 0) return errorFromErrno(errno);
  pollfd state{client, 0, 0};
  poll(&state, 1, 0);
  if ((state.revents & POLLERR) != 0) return error::kBrokenPipe;
  if (unread < kLessThanABuffer) return error::kSuccess;
  if ((state.revents & POLLHUP) != 0) return error::kBrokenPipe;
  return std::nullopt;
}

bool watch(int poller, int descriptor, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  return epoll_ctl(poller, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

// Edge-triggered, the kernel reports writability anew each time the peer has finished a buffer,
// as long as the socket is writable then; when the last buffer is finished it always is.
ScopedFd watchForReading(int client, int wake) {
  ScopedFd poller(epoll_create1(EPOLL_CLOEXEC));
  if (poller &&
      (!watch(poller.get(), client, EPOLLOUT | EPOLLET) || !watch(poller.get(), wake, EPOLLIN))) {
    poller.reset();
  }
  return poller;
}

}  // namespace

std::uint32_t PipeEnd::readAll(Operation& operation, std::uint8_t* data, std::size_t size) {
  const int client = operation.client->get();
  while (size > 0) {
    const ssize_t count = recv(client, data, size, MSG_DONTWAIT);
    if (count > 0) {
      data += count;
      size -= static_cast<std::size_t>(count);
      continue;
    }
    if (count == 0) return ended(operation, error::kBrokenPipe);
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return ended(operation, errorFromErrno(errno));
    if (const std::uint32_t error = wait(operation, client, POLLIN)) return error;
  }
  return error::kSuccess;
}

std::uint32_t PipeEnd::writeAll(Operation& operation, const std::uint8_t* data, std::size_t size) {
  const int client = operation.client->get();
  while (size > 0) {
    const ssize_t count = send(client, data, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count >= 0) {
      data += count;
      size -= static_cast<std::size_t>(count);
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return ended(operation, errorFromErrno(errno));
    if (const std::uint32_t error = wait(operation, client, POLLOUT)) return error;
  }
  return error::kSuccess;
}

std::uint32_t PipeEnd::waitUntilRead(Operation& operation) {
  const int client = operation.client->get();
  ScopedFd poller;
  for (;;) {
    const std::optional<std::uint32_t> result = outcome(client);
    if (result == error::kSuccess) return error::kSuccess;
    if (result) return ended(operation, *result);
    if (!poller) {
      // Watched from here on; what was read before that the next look sees.
      if (const std::uint32_t error = prepareToWait(operation)) return error;
      poller = watchForReading(client, operation.wake.get());
      if (!poller) return errorFromErrno(errno);
      continue;
    }
    epoll_event event{};
    if (epoll_wait(poller.get(), &event, 1, -1) < 0 && errno != EINTR) return errorFromErrno(errno);
    if (const std::uint32_t error = ended(operation, error::kSuccess)) return error;
  }
}

}  // namespace zelta::platform
