// Waiting for a card to come or to go.
//
// No lock is held while the agent is asked, so a card event may be handled before the request is in
// its list. So the request counts as waiting from just before the query, and is completed if the
// awaited event has come since.
#include "contract/reader_states.h"
#include "contract/status.h"
#include "diagnostics/log.h"
#include "diagnostics/traced_lock.h"
#include "reader/reader.h"

namespace zelta {

void Reader::IoSmartCardIsPresent(IoRequest* request, std::size_t /*inLength*/,
                                  std::size_t /*outLength*/) {
  constexpr char kHandler[] = "Reader::IoSmartCardIsPresent";
  if (request == nullptr) {
    logError(kNoError, "[IPRE]IOCTL_SMARTCARD_IS_PRESENT: invalid request");
    return;
  }
  const WaitingRequests::Question question(waiting_, CardEvent::kInserted);
  logInfo("[IPRE]IOCTL_SMARTCARD_IS_PRESENT");
  if (CheckATR() == QueryResult::kSuccess) {
    finish(*request, status::kSuccess, kHandler, __LINE__);
    return;
  }
  const TracedLock lock(kHandler, waiting_.deviceLock(), __LINE__);
  // If the agent was lost meanwhile, the insertion no longer counts: the request waits for the next
  // agent.
  if (question.overtaken() && state() != SCARD_ABSENT) {
    request->completeWithInformation(status::kSuccess, 0);
    return;
  }
  waiting_.add(CardEvent::kInserted, *request);
  markCancelable(*request, "[IPRE]IOCTL_SMARTCARD_IS_PRESENT: invalid callback");
}

void Reader::IoSmartCardIsAbsent(IoRequest* request, std::size_t /*inLength*/,
                                 std::size_t /*outLength*/) {
  constexpr char kHandler[] = "Reader::IoSmartCardIsAbsent";
  if (request == nullptr) {
    logError(kNoError, "[IABS]IOCTL_SMARTCARD_IS_ABSENT: invalid request");
    return;
  }
  const WaitingRequests::Question question(waiting_, CardEvent::kRemoved);
  logInfo("[IABS]IOCTL_SMARTCARD_IS_ABSENT");
  if (CheckATR() != QueryResult::kSuccess) {
    finish(*request, status::kSuccess, kHandler, __LINE__);
    return;
  }
  const TracedLock lock(kHandler, waiting_.deviceLock(), __LINE__);
  // Intentional: even if the next card is in by now. The caller must learn that this one has gone.
  if (question.overtaken()) {
    request->completeWithInformation(status::kSuccess, 0);
    return;
  }
  waiting_.add(CardEvent::kRemoved, *request);
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
  // If the request was cancelled before, the callback completes it during this call: nothing may
  // touch the request afterwards.
  request.markCancelable(callback.get());
}

void Reader::IoCancelRequest(IoRequest* request) {
  if (request == nullptr) {
    logError(kNoError, "[CREQ]Invalid request");
    return;
  }
  const TracedLock lock("Reader::IoCancelRequest", waiting_.deviceLock(), __LINE__);
  if (waiting_.remove(CardEvent::kRemoved, *request)) logInfo("[CREQ]Cancel Remove");
  if (waiting_.remove(CardEvent::kInserted, *request)) logInfo("[CREQ]Cancel Insert");
  request->completeWithInformation(status::kCancelled, 0);
}

bool Reader::stopWaiting(IoRequest& request) {
  waiting_.assumeDeviceLock();
  const bool waitedForRemoval = waiting_.remove(CardEvent::kRemoved, request);
  const bool waitedForInsertion = waiting_.remove(CardEvent::kInserted, request);
  return waitedForRemoval || waitedForInsertion;
}

}  // namespace zelta
