#include "tests/support/pipes/pipe_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <utility>

#include "platform/files/path_watch_linux.h"
#include "platform/pipe/pipe_path.h"

namespace zelta::test {

namespace {

using Clock = std::chrono::steady_clock;

timeval asTimeval(std::chrono::milliseconds time) {
  timeval value{};
  value.tv_sec = time.count() / 1000;
  value.tv_usec = time.count() % 1000 * 1000;
  return value;
}

bool waitForChange(const platform::PathWatch& watch, Clock::time_point end) {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    pollfd state{watch.fd(), POLLIN, 0};
    const int ready = poll(&state, 1, left > 0 ? static_cast<int>(left) : 0);
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

}  // namespace

bool PipeClient::connect(const std::string& pipeName) {
  close();
  const std::string path = platform::pipeSocketPath(pipeName);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path)) {
    error_ = ENAMETOOLONG;
    return false;
  }
  path.copy(address.sun_path, path.size());
  platform::ScopedFd made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval limit = asTimeval(kLimit);
  setsockopt(made.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  setsockopt(made.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  if (::connect(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    return fail();
  }
  pipe_ = std::move(made);
  return true;
}

bool PipeClient::connectWhenListening(const std::string& pipeName,
                                      std::chrono::milliseconds limit) {
  const Clock::time_point end = Clock::now() + limit;
  const std::string path = platform::pipeSocketPath(pipeName);
  if (path.empty()) return connect(pipeName);
  // The watch begins before the attempt, so that later changes are seen.
  platform::PathWatch watch({std::filesystem::absolute(path).string()});
  while (!connect(pipeName)) {
    if (!waitForChange(watch, end)) return false;
    watch.takeNews();
  }
  return true;
}

bool PipeClient::write(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  while (size > 0) {
    const ssize_t count = send(pipe_.get(), bytes, size, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return fail();
    bytes += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

std::size_t PipeClient::readUpTo(void* data, std::size_t size) {
  auto* bytes = static_cast<std::uint8_t*>(data);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = recv(pipe_.get(), bytes + done, size - done, 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      error_ = count < 0 ? errno : 0;
      break;
    }
    done += static_cast<std::size_t>(count);
  }
  return done;
}

bool PipeClient::waitForDrop() {
  std::uint8_t byte = 0;
  if (read(&byte, 1)) return false;
  // An end of the stream, or the loss of bytes that the server had not read.
  return error_ == 0 || error_ == ECONNRESET;
}

bool PipeClient::fail() {
  error_ = errno;
  return false;
}

}  // namespace zelta::test
