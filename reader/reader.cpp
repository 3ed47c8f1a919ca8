#include "reader/reader.h"

#include <stdexcept>

#include "contract/status.h"
#include "diagnostics/log.h"
#include "diagnostics/traced_lock.h"
#include "driver/request/memory_util.h"
#include "platform/process/error.h"

namespace zelta {

namespace {

constexpr char kVendorName[] = "Vornhalt";
constexpr char kIfdType[] = "Zelta Virtual SmartCard Reader";

ReaderDevice* requireDevice(ReaderDevice* device) {
  if (device == nullptr) {
    throw std::invalid_argument("Cannot create reader. Device is invalid.");
  }
  return device;
}

}  // namespace

Reader::Reader(std::uint32_t unitNumber, ReaderDevice* device)
    : unitNumber_(unitNumber),
      device_(requireDevice(device)),
      waiting_(*device),
      vendorName_(kVendorName),
      ifdType_(kIfdType),
      reportedUnitNumber_(unitNumber) {}

Reader::~Reader() = default;

void Reader::IoSmartCardGetState(IoRequest* request, std::size_t /*inLength*/,
                                 std::size_t /*outLength*/) {
  if (request == nullptr) {
    logError(kNoError, "[GSTA]IOCTL_SMARTCARD_GET_STATE: invalid request");
    return;
  }
  logInfo("[GSTA]IOCTL_SMARTCARD_GET_STATE");
  const std::uint32_t current = state();
  logInfo("STATE:%08X", current);
  MemoryUtil::setInt(device(), *request, current);
}

void Reader::finish(IoRequest& request, framework::HRESULT status, const char* handler, int line) {
  const TracedLock lock(handler, device_->deviceLock(), line);
  request.completeWithInformation(status, 0);
}

bool Reader::hasIntegerInput(IoRequest& request, const char* operation, const char* handler) {
  std::size_t size = 0;
  {
    const Held<IoMemory> memory = request.inputMemory();
    if (memory == nullptr) return true;
    (void)memory->dataBuffer(&size);
  }
  if (size >= sizeof(std::uint32_t)) return true;
  refuseShortInput(request, size, operation, handler);
  return false;
}

void Reader::refuseShortInput(IoRequest& request, std::size_t size, const char* operation,
                              const char* handler) {
  logError(platform::error::kInvalidParameter, "%s: input too short (%u bytes)", operation,
           static_cast<unsigned>(size));
  finish(request, status::kInvalidArgument, handler, __LINE__);
}

void Reader::notifyCardReady() noexcept {
  try {
    (void)NotifyCardReady();  // logs its own failures; nothing depends on it
  } catch (const std::exception& failure) {
    logError(kNoError, "[SPRT]NotifyCardReady failed: %s", failure.what());
  }
}

}  // namespace zelta
