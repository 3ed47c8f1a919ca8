#include "agent_link/pipe_stream.h"

#include <algorithm>
#include <array>
#include <new>
#include <stdexcept>

#include "contract/bytes.h"
#include "platform/process/error.h"
#include "platform/process/ports.h"

namespace zelta {

bool PipeStream::writeNumber(std::uint32_t value) {
  const auto bytes = toLittleEndian(value);
  return write(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

bool PipeStream::write(const std::uint8_t* bytes, std::uint32_t size) {
  return pipe_.run(epoch_, [&] { return platform::ports().pipes->write(handle_, bytes, size); });
}

void PipeStream::flush() {
  pipe_.run(epoch_, [&] { return platform::ports().pipes->flush(handle_); });
}

std::optional<std::uint32_t> PipeStream::readNumber() {
  std::array<std::uint8_t, 4> bytes{};
  if (!read(bytes.data(), static_cast<std::uint32_t>(bytes.size()))) return std::nullopt;
  return loadLittleEndian(bytes.data());
}

namespace {

// Bytes; far more than any card sends. Only after so many is memory reserved for the whole
// announced length: on Windows and under memory checkers, reserved memory counts as used.
constexpr std::uint32_t kTrusted = 16 * PipeStream::kReadBlock;

// Avoids copies of a long payload as it grows.
void reserve(Bytes& bytes, std::uint32_t length) {
  try {
    bytes.reserve(length);
  } catch (const std::bad_alloc&) {     // then it grows as its bytes arrive
  } catch (const std::length_error&) {  // as above
  }
}

// Ends with the first block that fails.
template <typename Read>
bool forBlocks(std::uint32_t length, Read read) {
  for (std::uint32_t done = 0; done < length;) {
    const std::uint32_t block = std::min(length - done, PipeStream::kReadBlock);
    if (!read(done, block)) return false;
    done += block;
  }
  return true;
}

}  // namespace

template <typename Read>
PipeStream::Payload PipeStream::withMemory(Read read) {
  try {
    return read() ? Payload::kRead : Payload::kFailed;
  } catch (const std::bad_alloc&) {
  } catch (const std::length_error&) {
  }
  pipe_.dropClient(epoch_);
  platform::setLastError(platform::error::kNotEnoughMemory);
  return Payload::kNoMemory;
}

PipeStream::Payload PipeStream::readPayload(std::uint32_t length, Bytes& bytes,
                                            std::uint32_t kept) {
  bytes.clear();
  kept = std::min(kept, length);
  const Payload result = withMemory([&] {
    const bool isRead = forBlocks(kept, [&](std::uint32_t done, std::uint32_t block) {
      if (done == 0) reserve(bytes, std::min(kept, kTrusted));
      if (done == kTrusted) reserve(bytes, kept);
      bytes.resize(bytes.size() + block);
      return read(bytes.data() + done, block);
    });
    return isRead && skip(length - kept);
  });
  if (result == Payload::kNoMemory) Bytes().swap(bytes);
  return result;
}

PipeStream::Payload PipeStream::readPayload(std::uint32_t length, ResponseBuffer& response) {
  return withMemory([&] {
    response.begin(length);
    return forBlocks(length, [&](std::uint32_t /*done*/, std::uint32_t block) {
      return read(response.next(block), block);
    });
  });
}

bool PipeStream::skip(std::uint32_t length) {
  std::array<std::uint8_t, 4096> bytes;
  while (length > 0) {
    const std::uint32_t block = std::min<std::uint32_t>(length, bytes.size());
    if (!read(bytes.data(), block)) return false;
    length -= block;
  }
  return true;
}

bool PipeStream::read(void* data, std::uint32_t size) {
  return pipe_.run(epoch_, [&] { return platform::ports().pipes->read(handle_, data, size); });
}

}  // namespace zelta
