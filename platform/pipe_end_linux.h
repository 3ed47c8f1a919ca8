// One server end of a pipe: its listener, its client and the operations in progress on them.
//
// Shared by the handle table and the calls under way. Every method may be called from any thread
// at any time, also at the same time as others and as `close`; each returns 0 or a system error
// number. Methods that wait hold no lock while they do.
//
// An operation enters a list when it begins and leaves it when it returns. Whoever ends operations
// (cancel, disconnect, close) marks those in the list and wakes each by an event of its own, so
// that an operation that begins later is not affected. Descriptors are shared with the operations
// that use them, and closed by the last, so that none is used after its number was given out
// again. Reads of one client take turns, and so do its writes: each is whole in the stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "platform/pipe_listener_linux.h"
#include "platform/scoped_fd_linux.h"
#include "platform/sync.h"

namespace zelta::platform {

class PipeEnd {
 public:
  PipeEnd(std::string path, PipeAccess access);
  ~PipeEnd();

  // Listens; before every other method, once.
  std::uint32_t open() ZELTA_EXCLUDES(mutex_);

  // 0: a client came while this waited. 535: there is one already, or one was waiting to be let
  // in. A client that has gone in the meantime counts as none: one that was let in is dropped,
  // one that waits is passed over unless it left bytes to read.
  std::uint32_t connect() ZELTA_EXCLUDES(mutex_);
  // Drops the client and ends the operations in progress: reads, writes and flushes with 109,
  // connects with 995. When it returns they have ended and the path takes the next client. A
  // client that `connect` has not let in yet goes on waiting.
  std::uint32_t disconnect() ZELTA_EXCLUDES(mutex_);
  // Ends the operations in progress with 995; 1168 where there is none.
  std::uint32_t cancel() ZELTA_EXCLUDES(mutex_);
  std::uint32_t read(void* data, std::size_t size) ZELTA_EXCLUDES(mutex_);
  std::uint32_t write(const void* data, std::size_t size) ZELTA_EXCLUDES(mutex_);
  // 109 where the client went before it had read everything.
  std::uint32_t flush() ZELTA_EXCLUDES(mutex_);
  // As `disconnect`, for good: the path is removed, every later call fails with 6.
  void close() ZELTA_EXCLUDES(mutex_);

 private:
  enum class Kind { Connect, Read, Write, Flush };

  struct Operation {
    explicit Operation(Kind kindOf) : kind(kindOf) {}
    const Kind kind;
    SharedFd client;            // what it works on; null for a connect
    std::uint32_t endedBy = 0;  // the error number it has to return; 0: it goes on
    ScopedFd wake;              // an event, made when the operation first waits
  };
  // Enters the list on construction, leaves it on destruction.
  class Entry;

  std::uint32_t begin(Operation& operation, MutexLock& lock) ZELTA_REQUIRES(mutex_);
  void endOperations(std::uint32_t clientError) ZELTA_REQUIRES(mutex_);
  static void end(Operation& operation, std::uint32_t error);
  void waitUntilEnded(MutexLock& lock) ZELTA_REQUIRES(mutex_);
  bool turnOf(const Operation& operation) const ZELTA_REQUIRES(mutex_);

  std::uint32_t admit(bool waited) ZELTA_REQUIRES(mutex_);
  std::uint32_t nextClient(bool waited, ScopedFd* client) ZELTA_REQUIRES(mutex_);
  std::uint32_t dropClient() ZELTA_REQUIRES(mutex_);

  std::uint32_t readAll(Operation& operation, std::uint8_t* data, std::size_t size);
  std::uint32_t writeAll(Operation& operation, const std::uint8_t* data, std::size_t size);
  std::uint32_t waitUntilRead(Operation& operation);
  // Makes the operation's event where it has none. Returns the error that ends the operation.
  std::uint32_t prepareToWait(Operation& operation) ZELTA_EXCLUDES(mutex_);
  // The number that the operation was ended by from outside; `otherwise` where it was not.
  std::uint32_t ended(const Operation& operation, std::uint32_t otherwise) ZELTA_EXCLUDES(mutex_);
  std::uint32_t wait(Operation& operation, int descriptor, short events) ZELTA_EXCLUDES(mutex_);

  Mutex mutex_;
  ConditionVariable changed_;  // an operation left the list or was ended
  PipeListener listener_ ZELTA_GUARDED_BY(mutex_);
  SharedFd client_ ZELTA_GUARDED_BY(mutex_);
  std::list<Operation*> operations_ ZELTA_GUARDED_BY(mutex_);  // on their callers' stacks
  bool closed_ ZELTA_GUARDED_BY(mutex_) = false;
};

}  // namespace zelta::platform
