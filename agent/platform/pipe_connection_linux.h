// A client end on a connected UNIX stream socket.
//
// The socket has a buffer: an answer that the driver has given up stays in it until the driver's
// end of the socket is closed. Therefore the agent checks whether the last answer was read before
// it takes the first byte of a command. The driver's flush waits until the command has been read.
#pragma once

#include <sys/uio.h>

#include <atomic>

#include "agent/link/pipe_client_port.h"
#include "agent/platform/stop_event_linux.h"
#include "contract/bytes.h"
#include "platform/files/scoped_fd_linux.h"

namespace zelta::agent {

class SocketConnection : public PipeConnection {
 public:
  // Takes a connected socket and makes it blocking. Throws std::system_error for lack of handles.
  explicit SocketConnection(platform::ScopedFd socket);

  IoResult awaitCommand() override;
  IoResult read(void* data, std::uint32_t size,
                std::optional<SteadyClock::time_point> deadline) override;
  IoResult answer(const Bytes& bytes, SteadyClock::time_point deadline) override;
  IoResult post(const void* data, std::uint32_t size,
                std::optional<SteadyClock::time_point> deadline) override;
  bool tryPost(const void* data, std::uint32_t size) override;
  IoResult flush() override;
  void cancel() override;

 private:
  // The step of a receive's limit. Setting the limit is a system call; coarse steps keep it the
  // same for every command that comes at once.
  using LimitUnit = std::chrono::duration<std::int64_t, std::deci>;

  struct Waited {
    IoResult result;
    short ready;  // if kDone: which of the awaited events came, or an error
  };
  Waited waitFor(short events, std::optional<SteadyClock::time_point> deadline) const;
  // Limits the next receive, rounded up. False if the limit has passed or cannot be set: the
  // receive must not sleep then.
  [[nodiscard]] bool limitReads(SteadyClock::duration limit);
  // Writes `count` parts, waiting while the socket takes no more.
  IoResult send(iovec* parts, std::size_t count, std::optional<SteadyClock::time_point> deadline,
                bool isAnswer);

  platform::ScopedFd socket_;
  LimitUnit readLimit_{0};  // as the socket has it; 0: none
  std::atomic<bool> cancelled_{false};
  StopEvent cancel_;
  platform::ScopedFd taken_;  // wakes on each edge of the socket's writability, for `flush`
};

}  // namespace zelta::agent
