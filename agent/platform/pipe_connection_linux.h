// A client end that is a connected UNIX stream socket.
//
// The socket has a buffer: an answer that the driver has given up stays in it, until the driver's
// end of the socket is closed. So whether the last answer was read is looked at before the first
// byte of a command is taken: the driver's flush holds it back until the command has been read.
#pragma once

#include <sys/uio.h>

#include <atomic>

#include "agent/link/pipe_client_port.h"
#include "contract/bytes.h"
#include "platform/files/scoped_fd_linux.h"

namespace zelta::agent {

class SocketConnection : public PipeConnection {
 public:
  // Takes a connected, non-blocking socket. Throws std::system_error for lack of handles.
  explicit SocketConnection(platform::ScopedFd socket);

  IoResult awaitCommand() override;
  IoResult read(void* data, std::uint32_t size,
                std::optional<SteadyClock::time_point> deadline) override;
  IoResult answer(const Bytes& bytes, SteadyClock::time_point deadline) override;
  IoResult post(const void* data, std::uint32_t size,
                std::optional<SteadyClock::time_point> deadline) override;
  IoResult flush() override;
  void cancel() override;

 private:
  struct Waited {
    IoResult result;
    short ready;  // of Done: of the events waited for, or those of an error
  };
  Waited waitFor(short events, std::optional<SteadyClock::time_point> deadline) const;
  // Writes `count` parts, waiting while the socket takes no more.
  IoResult send(iovec* parts, std::size_t count, std::optional<SteadyClock::time_point> deadline,
                bool isAnswer);

  platform::ScopedFd socket_;
  std::atomic<bool> cancelled_{false};
  platform::ScopedFd cancel_;  // readable from `cancel` on
  platform::ScopedFd taken_;   // wakes on each edge of the socket's writability, for `flush`
};

// Milliseconds until `deadline` as poll takes them: rounded up, -1 for none.
int pollTimeout(std::optional<SteadyClock::time_point> deadline);

}  // namespace zelta::agent
