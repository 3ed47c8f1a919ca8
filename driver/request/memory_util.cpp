#include "driver/request/memory_util.h"

#include <array>

#include "contract/bytes.h"
#include "contract/status.h"
#include "diagnostics/log.h"
#include "diagnostics/traced_lock.h"
#include "platform/process/error.h"

namespace zelta {

namespace {

void answer(ReaderDevice& device, IoRequest& request, const void* bytes, std::size_t size,
            const char* operation) {
  Held<IoMemory> memory = request.outputMemory();
  const TracedLock lock(operation, device.deviceLock(), __LINE__);
  if (memory == nullptr) {
    logError(platform::error::kGenFailure, "GetOutputMemory failed");
    request.complete(status::kGenFailure);
    return;
  }
  // Intentional: too small an output stays unwritten, and the status is success.
  (void)memory->copyFromBuffer(0, bytes, size);
  memory.reset();
  request.completeWithInformation(status::kSuccess, size);
}

}  // namespace

InputBytes::InputBytes(IoRequest& request) : memory_(request.inputMemory()) {
  if (memory_ == nullptr) {
    logError(kNoError, "GetInputMemory failed");
    return;
  }
  data_ = static_cast<const std::uint8_t*>(memory_->dataBuffer(&size_));
}

bool MemoryUtil::getBuffer(IoRequest& request, std::vector<std::uint8_t>& bytes) {
  const InputBytes input(request);
  if (!input) return false;
  if (input.size() == 0) {
    bytes.clear();
  } else {
    bytes.assign(input.data(), input.data() + input.size());
  }
  return true;
}

std::int32_t MemoryUtil::getInt(IoRequest& request) {
  const InputBytes input(request);
  return input ? static_cast<std::int32_t>(loadLittleEndian(input.data())) : -1;
}

void MemoryUtil::setBuffer(ReaderDevice& device, IoRequest& request, const std::uint8_t* bytes,
                           std::size_t size) {
  answer(device, request, bytes, size, "MemoryUtil::setBuffer");
}

void MemoryUtil::setInt(ReaderDevice& device, IoRequest& request, std::uint32_t value) {
  const std::array<std::uint8_t, 4> bytes = toLittleEndian(value);
  answer(device, request, bytes.data(), bytes.size(), "MemoryUtil::setInt");
}

void MemoryUtil::setString(ReaderDevice& device, IoRequest& request, const std::string& text) {
  answer(device, request, text.c_str(), text.size() + 1, "MemoryUtil::setString");
}

}  // namespace zelta
