#include "agent_link/pipe_stream.h"

#include <algorithm>
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

PipeStream::Payload PipeStream::readPayload(std::uint32_t length,
                                            std::vector<std::uint8_t>& bytes) {
  try {
    return readBlocks(length, bytes) ? Payload::kRead : Payload::kFailed;
  } catch (const std::bad_alloc&) {
    std::vector<std::uint8_t>().swap(bytes);
  } catch (const std::length_error&) {
    std::vector<std::uint8_t>().swap(bytes);
  }
  pipe_.dropClient(epoch_);
  platform::setLastError(platform::error::kNotEnoughMemory);
  return Payload::kNoMemory;
}

bool PipeStream::readBlocks(std::uint32_t length, std::vector<std::uint8_t>& bytes) {
  bytes.clear();
  do {
    const auto done = static_cast<std::uint32_t>(bytes.size());
    const std::uint32_t block = std::min(length - done, kReadBlock);
    bytes.resize(bytes.size() + block);
    if (!read(bytes.data() + done, block)) return false;
  } while (bytes.size() < length);
  return true;
}

bool PipeStream::read(void* data, std::uint32_t size) {
  return pipe_.run(epoch_, [&] { return platform::ports().pipes->read(handle_, data, size); });
}

}  // namespace zelta
