// A client end that is a named pipe. The handle is overlapped, so that a read can run beside a
// write and a cancel reaches what is blocked.
//
// The driver's pipes have no buffer: a write waits until the driver reads. Bytes that are posted
// wait in writes of their own that nobody waits for, as many as a small buffer would take.
#pragma once

#include <windows.h>
// windows.h comes first
#include <deque>
#include <memory>
#include <type_traits>

#include "agent/pipe_client_port.h"
#include "platform/sync.h"

namespace zelta::agent {

struct HandleCloser {
  void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using ScopedHandle = std::unique_ptr<std::remove_pointer_t<HANDLE>, HandleCloser>;

// A manual-reset event; throws std::system_error for lack of handles.
ScopedHandle makeEvent();

class NamedPipeConnection final : public PipeConnection {
 public:
  // The most posts that the driver has not read; one more waits.
  static constexpr std::size_t kMostPosts = 256;

  // Takes an overlapped handle. Throws std::system_error for lack of handles.
  explicit NamedPipeConnection(ScopedHandle pipe);
  // What was posted and not read by the driver is lost.
  ~NamedPipeConnection() override;

  IoResult read(void* data, std::uint32_t size,
                std::optional<SteadyClock::time_point> deadline) override;
  IoResult write(const void* data, std::uint32_t size,
                 std::optional<SteadyClock::time_point> deadline) override;
  // May also throw std::system_error for lack of handles. The system ends a thread's operations
  // with the thread, so what it has posted must have been read before it ends.
  IoResult post(const void* data, std::uint32_t size,
                std::optional<SteadyClock::time_point> deadline) override;
  IoResult flush() override;
  void cancel() override { SetEvent(cancel_.get()); }

 private:
  struct Post;

  bool isCancelled() const;
  // Done: the event is signalled, as opposed to the deadline or `cancel`.
  IoResult waitFor(HANDLE event, std::optional<SteadyClock::time_point> deadline) const;
  // Begins an operation and waits for it, for the deadline or for `cancel`, whichever is first. An
  // operation that is not waited for any longer has ended when this returns.
  template <typename Begin>
  IoResult finish(HANDLE event, Begin begin, std::optional<SteadyClock::time_point> deadline,
                  DWORD* count);
  // Takes the posts that the driver has read off the front; Closed where one failed.
  IoResult takeRead() ZELTA_REQUIRES(mutex_);

  const ScopedHandle pipe_;
  const ScopedHandle cancel_;   // stays signalled
  const ScopedHandle read_;     // one reader
  const ScopedHandle written_;  // one writer
  platform::Mutex mutex_;
  // Not known to be read by the driver, in the order in which it reads them. Shared with whoever
  // waits for one.
  std::deque<std::shared_ptr<Post>> posts_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::agent
