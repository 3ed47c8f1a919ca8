// The client end of a named pipe. The handle is overlapped, so that a read and a write can run at
// the same time and a cancel ends blocked calls.
//
// The driver's pipes have no buffer: a write blocks until the driver reads. So that an answer that
// the driver has given up does not block for ever, the read of the next command's first byte is
// begun before the answer is written; if that read ends first, the write is taken back. Posts are
// separate writes that nobody waits for, up to `kMostPosts` at a time.
#pragma once

#include <windows.h>
// windows.h comes first
#include <deque>
#include <memory>
#include <vector>

#include "agent/link/pipe_client_port.h"
#include "contract/bytes.h"
#include "platform/process/scoped_handle_win32.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

// A manual-reset event; throws std::system_error for lack of handles.
platform::ScopedKernelHandle makeEvent();

// The limit of a wait that ends at the deadline; infinite if there is none.
DWORD millisecondsUntil(std::optional<SteadyClock::time_point> deadline);

class NamedPipeConnection final : public PipeConnection {
 public:
  // The most posts that the driver has not read; one more waits.
  static constexpr std::size_t kMostPosts = 256;

  // Takes an overlapped handle. Throws std::system_error for lack of handles.
  explicit NamedPipeConnection(platform::ScopedKernelHandle pipe);
  // Posts that the driver has not read are lost.
  ~NamedPipeConnection() override;

  IoResult awaitCommand() override;
  IoResult read(void* data, std::uint32_t size,
                std::optional<SteadyClock::time_point> deadline) override;
  IoResult answer(const Bytes& bytes, SteadyClock::time_point deadline) override;
  // May also throw std::system_error for lack of handles. The system ends a thread's operations
  // with the thread, so what it has posted must have been read before it ends.
  IoResult post(const void* data, std::uint32_t size,
                std::optional<SteadyClock::time_point> deadline) override;
  // A post belongs to its thread.
  bool tryPost(const void*, std::uint32_t) override { return false; }
  IoResult flush() override;
  void cancel() override { SetEvent(cancel_.get()); }

 private:
  struct Post;

  // A command's first byte, whose read is begun before it is waited for.
  struct FirstByte {
    FirstByte() : done(makeEvent()) {}

    enum class State { kNone, kAwaited, kKept };  // kKept: read, and not handed over yet
    const platform::ScopedKernelHandle done;
    OVERLAPPED operation{};
    State state = State::kNone;
    unsigned char byte = 0;
  };

  bool isCancelled() const;
  // kDone: the event is signalled.
  IoResult waitFor(HANDLE event, std::optional<SteadyClock::time_point> deadline) const;
  struct Read {
    IoResult result;
    DWORD count = 0;  // bytes
  };
  // Reads up to `size` bytes, at least one.
  Read readSome(void* data, std::uint32_t size, std::optional<SteadyClock::time_point> deadline);
  // Begins to await the first byte, unless that has been done.
  [[nodiscard]] bool beginFirstByte();
  // Call when the first byte's read has ended. True if the byte was read.
  bool takeFirstByte();
  void cancelFirstByte();
  // Whether the answer in `answer_` has been read whole. Its write has ended on return.
  IoResult finishAnswer(OVERLAPPED* operation, SteadyClock::time_point deadline);
  // Removes the posts that the driver has read from the front; kClosed if one failed.
  IoResult dropRead() ZELTA_REQUIRES(mutex_);

  const platform::ScopedKernelHandle pipe_;
  const platform::ScopedKernelHandle cancel_;   // stays signalled
  const platform::ScopedKernelHandle read_;     // one reader
  const platform::ScopedKernelHandle written_;  // one writer
  FirstByte first_;
  std::vector<unsigned char> answer_;  // the one that is being written
  platform::Mutex mutex_;
  // Posts not known to be read by the driver, in order. Each is shared with the thread that waits
  // for it.
  std::deque<std::shared_ptr<Post>> posts_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::agent
