#include "tests/support/pipe_client.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <utility>

#include "platform/files/scoped_fd_linux.h"
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

std::filesystem::path deepestFolder(const std::string& path) {
  std::filesystem::path folder = std::filesystem::path(path).parent_path();
  while (!std::filesystem::is_directory(folder)) folder = folder.parent_path();
  return folder;
}

// Watches the deepest folder of the path that exists, and goes on where a deeper one appeared
// before the watch stood.
platform::ScopedFd watchFor(const std::string& path) {
  for (;;) {
    platform::ScopedFd watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    const std::filesystem::path folder = deepestFolder(path);
    const bool watched = inotify_add_watch(watch.get(), folder.c_str(),
                                           IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF) >= 0;
    if (deepestFolder(path) != folder) continue;
    return watched ? std::move(watch) : platform::ScopedFd();
  }
}

bool waitForChange(const platform::ScopedFd& watch, Clock::time_point end) {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    pollfd state{watch.get(), POLLIN, 0};
    const int ready = poll(&state, 1, left > 0 ? static_cast<int>(left) : 0);
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

}  // namespace

PipeClient::~PipeClient() { close(); }

PipeClient::PipeClient(PipeClient&& other) noexcept
    : socket_(std::exchange(other.socket_, -1)), error_(other.error_) {}

PipeClient& PipeClient::operator=(PipeClient&& other) noexcept {
  if (this == &other) return *this;
  close();
  socket_ = std::exchange(other.socket_, -1);
  error_ = other.error_;
  return *this;
}

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
  socket_ = made.release();
  return true;
}

bool PipeClient::connectWhenListening(const std::string& pipeName,
                                      std::chrono::milliseconds limit) {
  const Clock::time_point end = Clock::now() + limit;
  const std::string path = platform::pipeSocketPath(pipeName);
  if (path.empty()) return connect(pipeName);
  for (;;) {
    // The watch stands before the attempt, so that what happens after it is seen.
    const platform::ScopedFd watch = watchFor(path);
    if (connect(pipeName)) return true;
    if (!watch || !waitForChange(watch, end)) return false;
  }
}

bool PipeClient::write(const void* data, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  while (size > 0) {
    const ssize_t count = send(socket_, bytes, size, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return fail();
    bytes += count;
    size -= static_cast<std::size_t>(count);
  }
  return true;
}

bool PipeClient::write(const std::vector<std::uint8_t>& bytes) {
  return write(bytes.data(), bytes.size());
}

bool PipeClient::read(void* data, std::size_t size) { return readUpTo(data, size) == size; }

std::vector<std::uint8_t> PipeClient::read(std::size_t size) {
  std::vector<std::uint8_t> bytes(size);
  bytes.resize(readUpTo(bytes.data(), size));
  return bytes;
}

std::size_t PipeClient::readUpTo(void* data, std::size_t size) {
  auto* bytes = static_cast<std::uint8_t*>(data);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = recv(socket_, bytes + done, size - done, 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      error_ = count < 0 ? errno : 0;
      break;
    }
    done += static_cast<std::size_t>(count);
  }
  return done;
}

bool PipeClient::writeNumber(std::uint32_t value) {
  const std::uint8_t bytes[] = {
      static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
      static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)};
  return write(bytes, sizeof(bytes));
}

std::optional<std::uint32_t> PipeClient::readNumber() {
  std::uint8_t bytes[4];
  if (!read(bytes, sizeof(bytes))) return std::nullopt;
  return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
         static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

bool PipeClient::waitForDrop() {
  std::uint8_t byte = 0;
  if (read(&byte, 1)) return false;
  // An end of the stream, or the loss of bytes that the server had not read.
  return error_ == 0 || error_ == ECONNRESET;
}

void PipeClient::close() {
  if (socket_ >= 0) ::close(socket_);
  socket_ = -1;
}

bool PipeClient::fail() {
  error_ = errno;
  return false;
}

}  // namespace zelta::test
