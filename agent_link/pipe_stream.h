// Fields of the wire protocol (docs/wire-protocol.md) written to and read from one pipe, as calls
// of one epoch, which another thread can end.
//
// A failing operation leaves its reason in the calling thread's last error.
// Ownership: made for one exchange or one connection; the pipe outlives it.
// Threads: one at a time.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>

#include "agent_link/cancelable_pipe.h"
#include "contract/bytes.h"
#include "reader/response_buffer.h"

namespace zelta {

class PipeStream {
 public:
  // A payload up to this length is read by one call, a longer one in blocks of this size. So memory
  // is used as the bytes arrive, not as the agent announces them. Bytes.
  static constexpr std::uint32_t kReadBlock = ResponseBuffer::kBlock;

  static constexpr std::uint32_t kAll = std::numeric_limits<std::uint32_t>::max();

  enum class Payload { kRead, kFailed, kNoMemory };

  explicit PipeStream(CancelablePipe& pipe)
      : pipe_(pipe), handle_(pipe.handle()), epoch_(pipe.epoch()) {}

  [[nodiscard]] bool writeNumber(std::uint32_t value);
  [[nodiscard]] bool write(const std::uint8_t* bytes, std::uint32_t size);
  // Returns once the agent has read everything written. It reports no failure: the read that
  // follows does.
  void flush();
  // None if the read failed.
  std::optional<std::uint32_t> readNumber();
  // `bytes` becomes `length` bytes long, or `kept` if that is less, and is filled; the rest of the
  // payload is read and discarded. After a failed read of up to `kReadBlock` bytes it keeps that
  // length; after one of more bytes, that of the blocks begun so far. If there is no memory, it is
  // left empty and the client is dropped: what it has sent is still in the pipe and would be read
  // as its next answer.
  Payload readPayload(std::uint32_t length, Bytes& bytes, std::uint32_t kept = kAll);
  // Reads the payload into a response, which keeps its length after a failed read.
  Payload readPayload(std::uint32_t length, ResponseBuffer& response);
  // Reads and discards that many bytes. Uses no memory for them.
  [[nodiscard]] bool skip(std::uint32_t length);

 private:
  [[nodiscard]] bool read(void* data, std::uint32_t size);
  // Runs `read`, and drops the client if there is no memory for it; the last error says so.
  template <typename Read>
  Payload withMemory(Read read);

  CancelablePipe& pipe_;
  const platform::PipeHandleValue handle_;
  const CancelablePipe::Epoch epoch_;
};

}  // namespace zelta
