// One server end of a pipe: its listener, its client and the operations in progress on them.
//
// Owned by the handle table, which deletes it when no call is in it any more. Every method may be
// called from any thread at any time, also at the same time as others and as `close`; each returns
// 0 or a system error number. Methods that wait hold no lock while they do.
//
// An operation is in a list from its beginning until it returns. Cancel, disconnect and close mark
// the operations in the list and signal the end's one wake event, which stays signalled until the
// last of them has left. An operation that begins meanwhile is not marked: it goes on, and if it
// has to wait it first waits for the event to be reset. The client is closed when no operation
// works on it any more, so that none uses a descriptor's number that the system has reused. Reads
// of one client take turns, and so do its writes: each is whole in the stream.
//
// Not sd-event: an operation waits on its caller's thread, and any other may end it.
//
// Operations make and close no descriptor and need no memory, except for a connect's client and its
// place in the file system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/files/scoped_fd_linux.h"
#include "platform/pipe/pipe_listener_linux.h"
#include "platform/sync/sync.h"

namespace zelta::platform {

class PipeEnd {
 public:
  PipeEnd(std::string path, PipeAccess access);
  ~PipeEnd();

  // Listens. Call once, before every other method.
  [[nodiscard]] std::uint32_t open() ZELTA_EXCLUDES(mutex_);

  // 0: a client came while this waited. ERROR_PIPE_CONNECTED (535): there is one already, or one
  // was waiting to be let in. A client that has gone in the meantime counts as none: one that was
  // let in is dropped and its operations end with ERROR_BROKEN_PIPE (109); one that waits is passed
  // over unless it left bytes to read.
  [[nodiscard]] std::uint32_t connect() ZELTA_EXCLUDES(mutex_);
  // Drops the client and ends the operations in progress: reads, writes and flushes with
  // ERROR_BROKEN_PIPE (109), connects with ERROR_OPERATION_ABORTED (995). When it returns they have
  // ended and the path takes the next client. A client that `connect` has not let in yet goes on
  // waiting.
  [[nodiscard]] std::uint32_t disconnect() ZELTA_EXCLUDES(mutex_);
  // Ends the operations in progress with ERROR_OPERATION_ABORTED (995). ERROR_NOT_FOUND (1168) if
  // there are none.
  [[nodiscard]] std::uint32_t cancel() ZELTA_EXCLUDES(mutex_);
  [[nodiscard]] std::uint32_t read(void* data, std::size_t size) ZELTA_EXCLUDES(mutex_);
  // A client that it finds gone stays gone: reads, writes and flushes that begin later fail with
  // ERROR_BROKEN_PIPE (109), even if bytes from it are left.
  [[nodiscard]] std::uint32_t write(const void* data, std::size_t size) ZELTA_EXCLUDES(mutex_);
  // ERROR_BROKEN_PIPE (109) if the client left with data unread; it stays gone. If it read
  // everything and then left, its bytes can still be read. The exception: bytes that were unread
  // when the command began (the first write after a read or flush) cannot answer it, so that client
  // counts as gone.
  [[nodiscard]] std::uint32_t flush() ZELTA_EXCLUDES(mutex_);
  // As `disconnect`, for good: the path is removed, every later call fails with
  // ERROR_INVALID_HANDLE (6).
  void close() ZELTA_EXCLUDES(mutex_);

 private:
  enum class Kind { kConnect, kRead, kWrite, kFlush };

  // On its caller's stack. All but `kind` and `client` are guarded by the end's mutex.
  struct Operation {
    explicit Operation(Kind kindOf) : kind(kindOf) {}
    const Kind kind;
    int client = kNoFd;         // its client's descriptor; none for a connect
    std::uint32_t endedBy = 0;  // the error number it has to return; 0: it goes on
    Operation* next = nullptr;  // the one that began after it
  };
  // Enters the list on construction, leaves it on destruction.
  class Entry;

  void add(Operation& operation) ZELTA_REQUIRES(mutex_);
  void remove(Operation& operation) ZELTA_REQUIRES(mutex_);
  // Whether the condition holds for one of the operations in progress.
  template <typename Condition>
  bool any(Condition condition) const ZELTA_REQUIRES(mutex_);
  [[nodiscard]] std::uint32_t begin(Operation& operation, MutexLock& lock) ZELTA_REQUIRES(mutex_);
  // A read or flush ends a command, and the next write begins one.
  void noteCommand(const Operation& operation) ZELTA_REQUIRES(mutex_);
  bool turnOf(const Operation& operation) const ZELTA_REQUIRES(mutex_);
  // Ends the operations in progress with the error for their kind; 0 spares a kind. False if it
  // ended none.
  bool endOperations(std::uint32_t connectError, std::uint32_t clientError) ZELTA_REQUIRES(mutex_);
  void waitUntilEnded(MutexLock& lock) ZELTA_REQUIRES(mutex_);

  bool clientHasGone() const ZELTA_REQUIRES(mutex_);
  [[nodiscard]] std::uint32_t admit(bool waited) ZELTA_REQUIRES(mutex_);
  [[nodiscard]] FdResult nextClient(bool waited) ZELTA_REQUIRES(mutex_);
  // Drops the client when the operations on it, which have been told to end, have left.
  void dropClient(MutexLock& lock) ZELTA_REQUIRES(mutex_);
  [[nodiscard]] std::uint32_t listen() ZELTA_REQUIRES(mutex_);

  [[nodiscard]] std::uint32_t readAll(const Operation& operation, std::uint8_t* data,
                                      std::size_t size);
  [[nodiscard]] std::uint32_t writeAll(const Operation& operation, const std::uint8_t* data,
                                       std::size_t size);
  [[nodiscard]] std::uint32_t waitUntilRead(const Operation& operation);

  // Before the operation sleeps: returns when the wake event is reset, or the error that the
  // operation was ended with.
  [[nodiscard]] std::uint32_t prepareToSleep(const Operation& operation) ZELTA_EXCLUDES(mutex_);
  [[nodiscard]] std::uint32_t sleep(const Operation& operation, int descriptor, short events)
      ZELTA_EXCLUDES(mutex_);
  // The error with which another thread has ended the operation; `otherwise` if none has.
  [[nodiscard]] std::uint32_t ended(const Operation& operation, std::uint32_t otherwise)
      ZELTA_EXCLUDES(mutex_);
  // The same for a call that failed with errno `number`, which may mean that the client has gone.
  [[nodiscard]] std::uint32_t failed(const Operation& operation, int number) ZELTA_EXCLUDES(mutex_);
  void noteGone(const Operation& operation) ZELTA_REQUIRES(mutex_);
  // The result of a flush whose client has gone with bytes unread.
  [[nodiscard]] std::uint32_t lost(const Operation& operation) ZELTA_EXCLUDES(mutex_);
  // The result of a flush whose client has left with everything read, as far as the kernel still
  // knows. The kernel reports a loss only once, and a write on another thread may have received
  // that report and be about to note it.
  [[nodiscard]] std::uint32_t left(const Operation& operation) ZELTA_EXCLUDES(mutex_);

  // Made by `open`, unchanged until the end is destroyed.
  ScopedFd wake_;    // an event
  ScopedFd poller_;  // watches the event, and edge-triggered the client

  Mutex mutex_;
  ConditionVariable changed_;  // an operation left the list or was ended
  PipeListener listener_ ZELTA_GUARDED_BY(mutex_);
  ScopedFd client_ ZELTA_GUARDED_BY(mutex_);
  bool foundGone_ ZELTA_GUARDED_BY(mutex_) = false;      // the client, by an operation
  bool inCommand_ ZELTA_GUARDED_BY(mutex_) = false;      // the last operation was a write
  bool answerUnread_ ZELTA_GUARDED_BY(mutex_) = false;   // bytes were unread when it began
  Operation* first_ ZELTA_GUARDED_BY(mutex_) = nullptr;  // in progress, in order of beginning
  int ending_ ZELTA_GUARDED_BY(mutex_) = 0;              // the number of these that were ended
  bool closed_ ZELTA_GUARDED_BY(mutex_) = false;
};

}  // namespace zelta::platform
