// A client of a real pipe, for tests: blocking, and exact in what it reads and writes.
//
// Owned by the test. Reading on one thread while another writes is allowed; everything else is
// for one thread at a time. No call raises a signal. A call that the server does not answer
// within `kLimit` fails, so that a test ends with a message and not by its time-out.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "contract/bytes.h"
#if defined(_WIN32)
#include "platform/process/scoped_handle_win32.h"
#else
#include "platform/files/scoped_fd_linux.h"
#endif

namespace zelta::test {

class PipeClient {
 public:
  static constexpr std::chrono::milliseconds kLimit{30000};

  // Opens the pipe of that name (`\\.\pipe\A\B`), closing an earlier pipe first. One attempt:
  // false if the pipe is not there or refuses; `error()` has the system's number then.
  bool connect(const std::string& pipeName);
  // The same, but waits until the pipe exists and takes the client. Waits for the file system's
  // events and does not poll.
  bool connectWhenListening(const std::string& pipeName, std::chrono::milliseconds limit = kLimit);
  bool connected() const { return pipe_.valid(); }
  // The system's own number (errno) of the last call that failed; 0 for an end of the stream.
  int error() const { return error_; }

  // Writes all bytes, or returns false.
  bool write(const void* data, std::size_t size);
  bool write(const Bytes& bytes) { return write(bytes.data(), bytes.size()); }
  bool read(void* data, std::size_t size) { return readUpTo(data, size) == size; }
  // `size` bytes; fewer if the stream ended or failed before.
  Bytes read(std::size_t size) {
    Bytes bytes(size);
    bytes.resize(readUpTo(bytes.data(), size));
    return bytes;
  }

  // Unsigned 32-bit numbers, little-endian.
  bool writeNumber(std::uint32_t value) { return write(numberBytes(value)); }
  std::optional<std::uint32_t> readNumber() {
    std::uint8_t bytes[kNumberSize];
    if (!read(bytes, sizeof(bytes))) return std::nullopt;
    return loadLittleEndian(bytes);
  }

  // Waits until the server has dropped this client. False if a byte came instead (it is consumed)
  // or nothing happened within the limit.
  bool waitForDrop();

  void close() { pipe_.reset(); }

 private:
#if defined(_WIN32)
  using Handle = platform::ScopedKernelHandle;
#else
  using Handle = platform::ScopedFd;
#endif

  // Returns false, with the reason as `error()`.
  bool fail();
  // The number of bytes read; if they are fewer, `error()` says why.
  std::size_t readUpTo(void* data, std::size_t size);

  Handle pipe_;
  int error_ = 0;
};

}  // namespace zelta::test
