#include "platform/pipe/ask_socket_linux.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cerrno>

#include "platform/files/scoped_fd_linux.h"
#include "platform/pipe/socket_place_linux.h"

namespace zelta::platform {

namespace {

using Deadline = std::chrono::steady_clock::time_point;

// Repeats a call on the socket that a signal interrupts. The call ends at the deadline, for which
// `option` is the socket's time limit: with EAGAIN, which becomes ETIMEDOUT. -1 with errno.
template <typename Call>
ssize_t callUntil(Deadline deadline, const ScopedFd& socket, int option, Call call) {
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      errno = ETIMEDOUT;
      return -1;
    }
    timeval limit{};
    limit.tv_sec = std::chrono::floor<std::chrono::seconds>(left).count();
    limit.tv_usec = (left % std::chrono::seconds(1)).count();
    setsockopt(socket.get(), SOL_SOCKET, option, &limit, sizeof limit);
    const ssize_t result = call();
    if (result >= 0 || (errno != EINTR && errno != EAGAIN)) return result;
  }
}

struct Connection {
  int error = 0;  // the system's error number; the socket is connected if there is none
  ScopedFd socket;
};

// Connects to the first path at which a server listens; the error is that of the last path.
Connection connectToFirst(const std::vector<std::string>& paths, Deadline deadline) {
  Connection connection{ENOENT, {}};
  for (const std::string& path : paths) {
    connection.socket = ScopedFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!connection.socket) return {errno, {}};
    const ssize_t connected = callUntil(deadline, connection.socket, SO_SNDTIMEO, [&]() -> ssize_t {
      errno = connectToPath(connection.socket, path);
      return errno == 0 ? 0 : -1;
    });
    connection.error = connected == 0 ? 0 : errno;
    if (connection.error == 0 || connection.error == ENAMETOOLONG ||
        connection.error == ETIMEDOUT) {
      break;
    }
  }
  return connection;
}

}  // namespace

SocketAnswer askSocket(const std::vector<std::string>& paths, const std::string& question,
                       Deadline deadline, std::size_t longestAnswer) {
  const Connection connection = connectToFirst(paths, deadline);
  if (connection.error != 0) return {connection.error, {}};
  const ScopedFd& client = connection.socket;
  // Far shorter than a socket's buffer.
  if (send(client.get(), question.data(), question.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
    return {errno, {}};
  }
  SocketAnswer answer;
  for (;;) {
    std::array<char, 1024> buffer;
    const ssize_t count = callUntil(deadline, client, SO_RCVTIMEO, [&] {
      return recv(client.get(), buffer.data(), buffer.size(), 0);
    });
    if (count == 0) return answer;
    if (count < 0) return {errno, {}};
    const auto size = static_cast<std::size_t>(count);
    if (size > longestAnswer - answer.text.size()) return {EMSGSIZE, {}};
    answer.text.append(buffer.data(), size);
  }
}

}  // namespace zelta::platform
