// Pipes in memory whose handles behave like synchronous handles on Windows: a handle serves one
// operation at a time, in the order of arrival, and disconnect, flush, write and close from another
// thread wait until a blocked read or connect has ended. Only cancel does not wait, and it reaches
// only the operation that is being served, not those that wait for their turn. A way of stopping
// that would hang on Windows therefore hangs on these pipes, too; `waitUntilQueued` shows it.
//
//     no client yet            read, write, flush 536
//     after a disconnect       read, write, flush, disconnect 233; clients are turned away until
//                              the next connect
//     client gone              read 109 (when what it wrote has been read; at once if it left with
//                              bytes unread or a write found it gone), write 232, flush 109,
//                              connect 232
//     client there already     connect 535
//     nothing to cancel        cancel 1168
//
// They differ from Windows in two ways. A name in use is refused with ERROR_ACCESS_DENIED (5), on
// Windows with ERROR_PIPE_BUSY (231) if it has one instance. And a read waits for all its bytes; on
// Windows it returns with those that are there.
//
// A write returns once the client has read it. Clients write into a buffer without limit, so that a
// test's client needs no thread.
//
// Any thread may call anything. Clients' waits end with a failure after `kLimit`, those of the
// pipe's own operations never do.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/pipe/pipe.h"
#include "platform/sync/sync.h"

namespace zelta::test {

class SerialisingPipes final : public platform::PipeApi {
 public:
  static constexpr std::chrono::milliseconds kLimit{30000};

  using Client = std::uint32_t;
  static constexpr Client kNoClient = 0;

  // The client's side. Opening fails if the pipe does not exist (last error 2), has a client
  // or was disconnected and is not being connected (231).
  Client connectClient(const std::string& name);
  // False if the server has dropped the client.
  bool clientWrite(Client client, const std::vector<std::uint8_t>& bytes);
  // Waits for `size` bytes; fewer if the client was dropped.
  std::vector<std::uint8_t> clientRead(Client client, std::size_t size);
  // Waits until the server has dropped the client.
  bool waitForDrop(Client client);
  void closeClient(Client client);
  // The number of bytes that the client has not read.
  std::size_t unread(Client client);

  // Waits until an operation is blocked on the pipe, and `waiting` others wait for their turn.
  bool waitUntilQueued(platform::PipeHandleValue pipe, std::size_t waiting = 0);
  // The same for the pipe of that name, even if it is not created yet.
  bool waitUntilQueued(const std::string& name, std::size_t waiting = 0);

  // Fails for an empty text; the entries are not checked.
  bool convertSecurityDescriptor(const std::string& sddl,
                                 platform::SecurityDescriptor* out) override;
  platform::PipeHandleValue create(const std::string& name,
                                   const platform::PipeArguments& arguments) override;
  bool connect(platform::PipeHandleValue pipe) override;
  bool disconnect(platform::PipeHandleValue pipe) override;
  bool cancel(platform::PipeHandleValue pipe) override;
  bool read(platform::PipeHandleValue pipe, void* data, std::uint32_t size) override;
  bool write(platform::PipeHandleValue pipe, const void* data, std::uint32_t size) override;
  bool flush(platform::PipeHandleValue pipe) override;
  bool close(platform::PipeHandleValue pipe) override;

 private:
  enum class State { kListening, kConnected, kClientGone, kDisconnected, kClosed };
  struct Pipe {
    std::string name;
    State state = State::kListening;
    Client client = kNoClient;
    std::deque<std::uint8_t> in;      // written by the client, not read
    std::deque<std::uint8_t> out;     // written to the client, not read
    std::deque<std::uint64_t> turns;  // operations in order; the first is served
    bool blocked = false;             // the one that is served is waiting
    bool cancelled = false;           // the one that is served
  };
  using SharedPipe = std::shared_ptr<Pipe>;
  class Turn;

  SharedPipe find(platform::PipeHandleValue pipe) ZELTA_REQUIRES(mutex_);
  SharedPipe named(const std::string& name) ZELTA_REQUIRES(mutex_);
  SharedPipe pipeOf(Client client) ZELTA_REQUIRES(mutex_);
  template <typename Find>
  bool waitUntilQueuedOn(Find find, std::size_t waiting);
  template <typename Body>
  bool serve(platform::PipeHandleValue pipe, Body body);
  template <typename Ready>
  std::uint32_t block(Pipe& pipe, platform::MutexLock& lock, Ready ready) ZELTA_REQUIRES(mutex_);
  void drop(Pipe& pipe, State next) ZELTA_REQUIRES(mutex_);
  static std::uint32_t noClientError(const Pipe& pipe, std::uint32_t whenGone);

  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  char descriptor_ = 0;
  std::uint64_t lastTurn_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::uintptr_t lastHandle_ ZELTA_GUARDED_BY(mutex_) = 0;
  Client lastClient_ ZELTA_GUARDED_BY(mutex_) = kNoClient;
  std::map<platform::PipeHandleValue, SharedPipe> pipes_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::test
