// The two pipes of a reader: their names, how they are created, connected and disconnected.
//
// Failures are logged where they happen. A numeric result is a system error number, 0 for success.
//
// Ownership: the reader's; owns both pipes and closes them on destruction, the event pipe first.
// Threads: `create` and `connect` are for one thread, the others for any. The pipe mutex is held
// while the handles are replaced and while the pipes are cancelled and disconnected. The handles
// are read without it, deliberately: a thread that blocks on a pipe cannot hold it.
#pragma once

#include <cstdint>
#include <string>

#include "agent_link/cancelable_pipe.h"
#include "platform/pipe/pipe.h"
#include "platform/sync/sync.h"

namespace zelta {

class PipePair {
 public:
  explicit PipePair(std::uint32_t readerIndex);

  CancelablePipe& command() { return command_; }
  CancelablePipe& event() { return event_; }

  [[nodiscard]] std::uint32_t create() ZELTA_EXCLUDES(mutex_);
  // Blocks until both pipes have a client, the command pipe's first.
  [[nodiscard]] std::uint32_t connect() ZELTA_EXCLUDES(mutex_);
  // Ends the calls on both pipes and drops their clients, the event pipe's first. The pipes can be
  // connected again.
  void disconnect() ZELTA_EXCLUDES(mutex_);
  // Refuses further calls on the pipes; `disconnect` ends those that have begun.
  void stop();

 private:
  static std::uint32_t createPipe(CancelablePipe& pipe, platform::SecurityDescriptor descriptor,
                                  const char* title);
  std::uint32_t connectPipe(CancelablePipe& pipe, const char* title);
  static void disconnectPipe(CancelablePipe& pipe);

  platform::Mutex mutex_ ZELTA_ACQUIRED_BEFORE(command_.mutex(), event_.mutex());
  CancelablePipe command_;
  CancelablePipe event_;
};

}  // namespace zelta
