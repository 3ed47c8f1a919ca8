// Client ends of the driver's pipes, and waiting for the driver to offer them.
//
// Failures are values. Lack of memory or of handles throws (std::system_error).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "contract/bytes.h"

namespace zelta::agent {

// The clock of every time limit.
using SteadyClock = std::chrono::steady_clock;

enum class IoResult {
  kDone,
  kClosed,     // the driver's end is gone
  kCancelled,  // by `cancel`
  kTimedOut,
  kGivenUp,  // the driver no longer waits for its answer
};

// One connected client end of either pipe. `cancel` may be called from any thread at any time. Must
// not be destroyed during a call.
class PipeConnection {
 public:
  virtual ~PipeConnection() = default;

  // On the command pipe, one call at a time: await a command, read all its fields, and answer it
  // before the next is awaited.
  //
  // A driver that sends a command before it has read the previous answer has given that answer up
  // (kGivenUp). Drop the connection at once, or it would read the old answer as the new one.

  // Blocks until a command begins. kGivenUp if the last answer has not been read whole; no more
  // than a byte of the command has been read then.
  virtual IoResult awaitCommand() = 0;
  // Reads `size` bytes and no byte more; blocks until they are there, or until `deadline` if there
  // is one.
  virtual IoResult read(void* data, std::uint32_t size,
                        std::optional<SteadyClock::time_point> deadline) = 0;
  // Writes the length of `bytes` and `bytes`, at once. Blocks until the pipe has taken them (a pipe
  // without a buffer: until the driver has read them) or `deadline`. kGivenUp if the pipe holds
  // more than the command, or if more comes before all is written; what the driver has not read is
  // taken back if the pipe allows that.
  virtual IoResult answer(const Bytes& bytes, SteadyClock::time_point deadline) = 0;

  // On the event pipe; a read, a flush and a post of either kind may run at the same time on three
  // threads.

  // Writes `size` bytes to the pipe at once, in the order of the calls, and does not wait for the
  // driver to read them. Blocks only while the pipe is full, at most until `deadline` if there is
  // one. Up to 4 bytes are written whole or, after kTimedOut, not at all, and may then be posted
  // again. Of more bytes an unknown part has been written unless the result is kDone. Posted bytes
  // may be lost when their thread ends.
  virtual IoResult post(const void* data, std::uint32_t size,
                        std::optional<SteadyClock::time_point> deadline) = 0;
  // Posts `size` bytes, at most 4, without blocking. False, and nothing written, if the pipe does
  // not take them now or would lose them if this thread ended.
  [[nodiscard]] virtual bool tryPost(const void* data, std::uint32_t size) = 0;
  // Blocks until the driver has read everything posted.
  virtual IoResult flush() = 0;

  // Makes every operation, current and later, return kCancelled.
  virtual void cancel() = 0;
};

enum class OpenResult {
  kOpened,
  kAbsent,   // no such pipe
  kRefused,  // the driver does not listen: it is not running, or serves another client
  kFailed,   // for another reason, which may pass (rights, for example)
};

struct OpenedPipe {
  OpenResult result = OpenResult::kFailed;
  std::unique_ptr<PipeConnection> connection;  // if kOpened
  std::string detail;                          // for people: the place, and why not
};

// For one thread, except `cancel`.
class PipeClientPort {
 public:
  virtual ~PipeClientPort() = default;

  // Starts to note changes that could make a failing `open` of these pipes succeed. Forgets earlier
  // ones.
  virtual void watch(const std::vector<std::string>& pipeNames) = 0;
  // Tries once, without blocking.
  virtual OpenedPipe open(const std::string& pipeName) = 0;
  // Blocks until a change has been noted since `watch`, until `limit` has passed if there
  // is one, or until `cancel`.
  virtual void waitForChange(std::optional<std::chrono::milliseconds> limit) = 0;
  // Makes this and every later wait return at once.
  virtual void cancel() = 0;
};

// The operating system's pipes. On Linux a pipe is a UNIX stream socket below $ZELTA_PIPE_ROOT.
std::unique_ptr<PipeClientPort> makeSystemPipeClient();

}  // namespace zelta::agent
