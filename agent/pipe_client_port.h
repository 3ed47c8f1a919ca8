// Client ends of the driver's pipes, and waiting for the driver to offer them.
//
// Failures are values; nothing throws but for lack of memory or of handles (std::system_error).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zelta::agent {

using SteadyClock = std::chrono::steady_clock;

enum class IoResult {
  Done,
  Closed,     // the driver's end is gone
  Cancelled,  // by `cancel`
  TimedOut,
};

// One connected client end. A read, a flush and either a write or a post may run at the same time
// on three threads; `cancel` may come from any thread. Destroyed when none of them is running.
//
// After a write or a post that was not Done, an unknown part of its bytes may be with the driver.
class PipeConnection {
 public:
  virtual ~PipeConnection() = default;

  // Blocks until `size` bytes are there, or until `deadline` where one is given.
  virtual IoResult read(void* data, std::uint32_t size,
                        std::optional<SteadyClock::time_point> deadline) = 0;
  // Hands over `size` bytes as one write: blocks until the pipe has taken them (a pipe without a
  // buffer: until the driver has read them), or until `deadline` where one is given.
  virtual IoResult write(const void* data, std::uint32_t size,
                         std::optional<SteadyClock::time_point> deadline) = 0;
  // The same, but never waits for the driver to read these bytes: they stand in the pipe, behind
  // what was posted before, when it returns. Blocks, as `write` does, only while the pipe holds so
  // much unread that it takes no more. What a thread has posted may be lost with its end.
  virtual IoResult post(const void* data, std::uint32_t size,
                        std::optional<SteadyClock::time_point> deadline) = 0;
  // Blocks until the driver has read everything written and posted.
  virtual IoResult flush() = 0;
  // Releases what is blocked and makes every later operation return Cancelled.
  virtual void cancel() = 0;
};

enum class OpenResult {
  Opened,
  Absent,   // no such pipe
  Refused,  // the driver does not listen: it is not running, or serves another client
  Failed,   // for another reason, which may pass (rights, for example)
};

struct OpenedPipe {
  OpenResult result = OpenResult::Failed;
  std::unique_ptr<PipeConnection> connection;  // where Opened
  std::string detail;                          // for people: the place, and why not
};

// One thread uses it; only `cancel` may come from another.
class PipeClientPort {
 public:
  virtual ~PipeClientPort() = default;

  // From now on notes what could make a failing `open` of these pipes succeed. Forgets what was
  // noted before.
  virtual void watch(const std::vector<std::string>& pipeNames) = 0;
  // Tries once, without blocking.
  virtual OpenedPipe open(const std::string& pipeName) = 0;
  // Blocks until something has been noted since `watch`, until `limit` has passed where one is
  // given, or until `cancel`.
  virtual void waitForChange(std::optional<std::chrono::milliseconds> limit) = 0;
  // Makes this and every later wait return at once.
  virtual void cancel() = 0;
};

// The operating system's pipes. On Linux a pipe is a UNIX stream socket below $ZELTA_PIPE_ROOT.
std::unique_ptr<PipeClientPort> makeSystemPipeClient();

}  // namespace zelta::agent
