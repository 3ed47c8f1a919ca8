// The device's part in I/O: finding the reader of a request, dispatch and cancellation.
#include <algorithm>
#include <array>
#include <string_view>

#include "agent_link/exchange_turn.h"
#include "contract/io_controls.h"
#include "contract/status.h"
#include "diagnostics/traced_lock.h"
#include "driver/device/my_device.h"
#include "driver/device/narrow_text.h"
#include "driver/device/reader_index.h"
#include "driver/request/entry_point.h"
#include "driver/request/framework_request.h"
#include "platform/process/error.h"

namespace zelta {

namespace {

using framework::HRESULT;
namespace error = platform::error;

constexpr char kProcess[] = "CMyDevice::ProcessIoControl";
constexpr char kCancel[] = "CMyDevice::OnCancel";

constexpr std::size_t kFileNameCapacity = 300;  // characters, the terminator included

// A file's name up to its terminator, in place; empty until it is read. The buffer is not cleared,
// since every I/O control reads a name.
class FileName {
 public:
  FileName() { buffer_[0] = L'\0'; }

  HRESULT readFrom(IoFile& file) {
    auto capacity = static_cast<framework::DWORD>(buffer_.size());
    return file.retrieveFileName(buffer_.data(), &capacity);
  }
  std::wstring_view text() const {
    const auto* const end = std::find(buffer_.begin(), buffer_.end(), L'\0');
    return {buffer_.data(), static_cast<std::size_t>(end - buffer_.begin())};
  }

 private:
  std::array<wchar_t, kFileNameCapacity> buffer_;
};

void logUnusableName(std::wstring_view name, const char* reason) noexcept {
  constexpr char kFormat[] = "Instance ID cannot be retrieved from request [filename:%s]: %s";
  try {
    logError(kNoError, kFormat, narrowText(name).c_str(), reason);
  } catch (const std::bad_alloc&) {
    logError(kNoError, kFormat, "", reason);
  }
}

}  // namespace

CMyDevice::Handler CMyDevice::findHandler(std::uint32_t code) {
  struct Entry {
    std::uint32_t code;
    Handler handler;
  };
  static constexpr Entry kHandlers[] = {
      {IOCTL_SMARTCARD_GET_ATTRIBUTE, &Reader::IoSmartCardGetAttribute},
      {IOCTL_SMARTCARD_IS_PRESENT, &Reader::IoSmartCardIsPresent},
      {IOCTL_SMARTCARD_GET_STATE, &Reader::IoSmartCardGetState},
      {IOCTL_SMARTCARD_IS_ABSENT, &Reader::IoSmartCardIsAbsent},
      {IOCTL_SMARTCARD_POWER, &Reader::IoSmartCardPower},
      {IOCTL_SMARTCARD_SET_ATTRIBUTE, &Reader::IoSmartCardSetAttribute},
      {IOCTL_SMARTCARD_SET_PROTOCOL, &Reader::IoSmartCardSetProtocol},
      {IOCTL_SMARTCARD_TRANSMIT, &Reader::IoSmartCardTransmit},
  };
  for (const Entry& entry : kHandlers) {
    if (entry.code == code) return entry.handler;
  }
  return nullptr;
}

void CMyDevice::ProcessIoControl(framework::IWDFIoQueue* /*queue*/,
                                 framework::IWDFIoRequest* request, framework::ULONG code,
                                 framework::SIZE_T inLength, framework::SIZE_T outLength) noexcept {
  const TimedSection section(kProcess);
  if (request == nullptr) {
    logError(error::kInvalidParameter, "[IOCT]Invalid request: ERROR_INVALID_PARAMETER:%08X", code);
    return;
  }
  logInfo("[IOCT]IOCTL %08X - In %i Out %i", code, static_cast<int>(inLength),
          static_cast<int>(outLength));
  const auto [adapter, attached] = FrameworkRequest::attach(*request);
  if (adapter == nullptr) {
    logError(static_cast<std::uint32_t>(attached), "[IOCT]Request cannot be attached:%08X", code);
    // The request cannot be kept waiting, so an adapter for its completion suffices.
    FrameworkRequest unattached(*request);
    finish(unattached, attached, kProcess, __LINE__);
    return;
  }
  try {
    route(*adapter, code, inLength, outLength);
  } catch (const std::exception&) {
    finish(*adapter, statusOfException(kProcess), kProcess, __LINE__);
  }
}

void CMyDevice::route(IoRequest& request, std::uint32_t code, std::size_t inLength,
                      std::size_t outLength) {
  const DispatchGate::Pass pass(gate_);
  const ExchangeTurn::RequestScope scope;  // gives up its turn before the reader may be destroyed
  if (!pass.admitted() || readers(pass).empty()) {
    logError(error::kInvalidState, "[IOCT]No reader available: ERROR_INVALID_STATE:%08X", code);
    finish(request, status::kInvalidState, kProcess, __LINE__);
    return;
  }
  Reader* reader = findReader(readers(pass), request, code);
  if (reader == nullptr) {
    finish(request, status::kInvalidState, kProcess, __LINE__);
    return;
  }
  const Handler handler = findHandler(code);
  if (handler == nullptr) {
    logError(error::kNotSupported, "[IOCT]ERROR_NOT_SUPPORTED:%08X", code);
    finish(request, status::kNotSupported, kProcess, __LINE__);
    return;
  }
  (reader->*handler)(&request, inLength, outLength);
}

Reader* CMyDevice::findReader(const Readers& readers, IoRequest& request, std::uint32_t code) {
  const std::optional<std::uint32_t> index = getReaderInstanceId(request);
  if (!index) {
    logError(error::kInvalidState, "[IOCT]Instance ID cannot be retrieved");
    return nullptr;
  }
  if (*index > readers.size() - 1) {
    logError(error::kInvalidState, "[IOCT]Out of range reader: ERROR_INVALID_STATE:%08X", code);
    return nullptr;
  }
  Reader* reader = readers[*index].get();
  if (reader == nullptr) {
    logError(error::kInvalidState, "[IOCT]Reader is null: ERROR_INVALID_STATE:%08X", code);
  }
  return reader;
}

std::optional<std::uint32_t> CMyDevice::getReaderInstanceId(IoRequest& request) noexcept {
  const TracedLock lock("CMyDevice::getReaderInstanceId", deviceLock_, __LINE__);
  FileName name;
  try {
    const Held<IoFile> file = request.fileObject();
    if (file == nullptr) {
      logError(kNoError, "Instance ID cannot be retrieved: file object is null");
      return std::nullopt;
    }
    const HRESULT result = name.readFrom(*file);
    if (framework::failed(result)) {
      logError(static_cast<std::uint32_t>(result), "Instance ID cannot be retrieved from request");
      return std::nullopt;
    }
    return parseReaderIndex(name.text());
  } catch (const std::exception& failure) {
    logUnusableName(name.text(), failure.what());
    return std::nullopt;
  }
}

void CMyDevice::OnCancel(framework::IWDFIoRequest* request) {
  if (request == nullptr) {
    logError(kNoError, "[OnCancel]Invalid request");
    return;
  }
  const TimedSection section(kCancel);
  // A request that was never attached is in no list and only has to be completed.
  FrameworkRequest unattached(*request);
  IoRequest* adapter = FrameworkRequest::attached(*request);
  cancel(adapter != nullptr ? *adapter : unattached);
}

void CMyDevice::cancel(IoRequest& request) noexcept {
  const std::optional<std::uint32_t> index = getReaderInstanceId(request);
  if (!index) logError(error::kCancelled, "[OnCancel]Instance ID cannot be retrieved");
  const TracedLock lock(kCancel, deviceLock_, __LINE__);
  if (!index) {
    cancelUnrouted(request);
    return;
  }
  // The reader that marked the request cancelable is there unless it has been shut down meanwhile,
  // and then it has dropped the request from its lists.
  if (*index >= readers_.size() || readers_[*index] == nullptr) {
    logError(error::kCancelled, "[OnCancel]The reader is gone");
    cancelUnrouted(request);
    return;
  }
  readers_[*index]->IoCancelRequest(&request);
}

void CMyDevice::cancelUnrouted(IoRequest& request) {
  // Its file name led to a reader when the request was queued, but need not do so again.
  for (const std::unique_ptr<Reader>& reader : readers_) {
    if (reader != nullptr && reader->stopWaiting(request)) break;
  }
  request.completeWithInformation(status::kCancelled, 0);
}

void CMyDevice::finish(IoRequest& request, HRESULT status, const char* operation, int line) {
  const TracedLock lock(operation, deviceLock_, line);
  request.completeWithInformation(status, 0);
}

}  // namespace zelta
