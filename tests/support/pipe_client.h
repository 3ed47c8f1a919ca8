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
#include <vector>

namespace zelta::test {

class PipeClient {
 public:
  static constexpr std::chrono::milliseconds kLimit{30000};

  PipeClient() = default;
  ~PipeClient();
  PipeClient(PipeClient&& other) noexcept;
  PipeClient& operator=(PipeClient&& other) noexcept;

  // Opens the pipe of that name (`\\.\pipe\A\B`), closing what was open before. One attempt:
  // false where the pipe is not there or refuses; `error()` has the system's number then.
  bool connect(const std::string& pipeName);
  // The same, but goes on until the pipe is there and takes the client. Waits on the file
  // system's events, it does not poll.
  bool connectWhenListening(const std::string& pipeName, std::chrono::milliseconds limit = kLimit);
  bool connected() const { return socket_ >= 0; }
  // The system's own number (errno) of the last call that failed; 0 for an end of the stream.
  int error() const { return error_; }

  // All the bytes or false.
  bool write(const void* data, std::size_t size);
  bool write(const std::vector<std::uint8_t>& bytes);
  bool read(void* data, std::size_t size);
  // `size` bytes; fewer where the stream ended or failed before.
  std::vector<std::uint8_t> read(std::size_t size);

  // Unsigned 32-bit numbers, little-endian.
  bool writeNumber(std::uint32_t value);
  std::optional<std::uint32_t> readNumber();

  // Waits until the server has dropped this client. False where a byte came instead (it is
  // consumed) or nothing happened within the limit.
  bool waitForDrop();

  void close();

 private:
  bool fail();
  std::size_t readUpTo(void* data, std::size_t size);

  std::intptr_t socket_ = -1;  // the system's own handle
  int error_ = 0;
};

}  // namespace zelta::test
