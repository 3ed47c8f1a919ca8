// A client end that is a connected UNIX stream socket.
#pragma once

#include "agent/pipe_client_port.h"
#include "platform/scoped_fd_linux.h"

namespace zelta::agent {

class SocketConnection : public PipeConnection {
 public:
  // Takes a connected, non-blocking socket. Throws std::system_error for lack of handles.
  explicit SocketConnection(platform::ScopedFd socket);

  IoResult read(void* data, std::uint32_t size,
                std::optional<SteadyClock::time_point> deadline) override;
  IoResult write(const void* data, std::uint32_t size,
                 std::optional<SteadyClock::time_point> deadline) override;
  // The socket has a buffer, so that a write does not wait for the driver either.
  IoResult post(const void* data, std::uint32_t size,
                std::optional<SteadyClock::time_point> deadline) override {
    return write(data, size, deadline);
  }
  IoResult flush() override;
  void cancel() override;

 private:
  // Done: the socket is ready for `events` or in error; the next call on it tells.
  IoResult waitFor(short events, std::optional<SteadyClock::time_point> deadline);

  platform::ScopedFd socket_;
  platform::ScopedFd cancel_;  // readable from `cancel` on
  platform::ScopedFd taken_;   // wakes on each edge of the socket's writability, for `flush`
};

// Milliseconds until `deadline` as poll takes them: rounded up, -1 for none.
int pollTimeout(std::optional<SteadyClock::time_point> deadline);

}  // namespace zelta::agent
