// Waiting for a card to come or to go.
#include "diagnostics/log.h"
#include "diagnostics/traced_lock.h"
#include "driver/status.h"
#include "reader/reader.h"

namespace zelta {

void Reader::IoSmartCardIsPresent(IoRequest* request, std::size_t /*inLength*/,
                                  std::size_t /*outLength*/) {
  constexpr char kHandler[] = "Reader::IoSmartCardIsPresent";
  if (request == nullptr) {
    logError(kNoError, "[IPRE]IOCTL_SMARTCARD_IS_PRESENT: invalid request");
    return;
  }
  logInfo("[IPRE]IOCTL_SMARTCARD_IS_PRESENT");
  const platform::MutexLock presence(presenceMutex_);
  const QueryResult check = exchangeCheck();
  if (check == QueryResult::Success) {
    finish(*request, status::kSuccess, kHandler, __LINE__);
    return;
  }
  const TracedLock lock(kHandler, device().deviceLock(), __LINE__);
  {
    const platform::MutexLock listLock(requestListMutex_);
    pendingInsert_.append(request);
  }
  insertRequestCondition_.notifyAll();
  markCancelable(*request, "[IPRE]IOCTL_SMARTCARD_IS_PRESENT: invalid callback");
}

void Reader::IoSmartCardIsAbsent(IoRequest* request, std::size_t /*inLength*/,
                                 std::size_t /*outLength*/) {
  constexpr char kHandler[] = "Reader::IoSmartCardIsAbsent";
  if (request == nullptr) {
    logError(kNoError, "[IABS]IOCTL_SMARTCARD_IS_ABSENT: invalid request");
    return;
  }
  logInfo("[IABS]IOCTL_SMARTCARD_IS_ABSENT");
  const platform::MutexLock presence(presenceMutex_);
  const QueryResult check = exchangeCheck();
  if (check != QueryResult::Success) {
    finish(*request, status::kSuccess, kHandler, __LINE__);
    return;
  }
  const TracedLock lock(kHandler, device().deviceLock(), __LINE__);
  pendingRemove_.append(request);
  markCancelable(*request, "[IABS]IOCTL_SMARTCARD_IS_ABSENT: invalid callback!");
}

void Reader::markCancelable(IoRequest& request, const char* failureText) {
  framework::ComPtr<framework::IRequestCallbackCancel> callback;
  const framework::HRESULT result =
      device().queryInterface(framework::IRequestCallbackCancel::iid, callback.putVoid());
  if (framework::failed(result) || !callback) {
    // The request stays in its list and waits on, without a way to cancel it.
    logError(static_cast<std::uint32_t>(result), "%s", failureText);
    return;
  }
  // Where the request was cancelled before, the callback runs here and now and completes it:
  // nothing may touch the request behind this call.
  request.markCancelable(callback.get());
}

void Reader::IoCancelRequest(IoRequest* request) {
  if (request == nullptr) {
    logError(kNoError, "[CREQ]Invalid request");
    return;
  }
  const TracedLock lock("Reader::IoCancelRequest", device().deviceLock(), __LINE__);
  if (pendingRemove_.remove(request)) logInfo("[CREQ]Cancel Remove");
  if (pendingInsert_.remove(request)) logInfo("[CREQ]Cancel Insert");
  request->completeWithInformation(status::kCancelled, 0);
}

}  // namespace zelta
