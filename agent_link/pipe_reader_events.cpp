// The server thread: lets the agent in and handles what it reports.
#include <exception>

#include "agent_link/pipe_reader.h"
#include "agent_link/wire.h"
#include "diagnostics/log.h"
#include "diagnostics/log_output.h"
#include "diagnostics/traced_lock.h"
#include "driver/smartcard_ioctl.h"
#include "driver/status.h"
#include "platform/error.h"

namespace zelta {

namespace {

// The agent sent a session log id without a character. Has no system error of its own.
constexpr std::int32_t kEmptySessionLogId = -501;

// A reference on a waiting request while it is completed and taken out of its list.
class RequestReference {
 public:
  explicit RequestReference(IoRequest& request) : request_(request) { request_.addRef(); }
  ~RequestReference() { request_.release(); }
  RequestReference(const RequestReference&) = delete;
  RequestReference& operator=(const RequestReference&) = delete;

 private:
  IoRequest& request_;
};

// Completes the request that came last with `complete` and takes it out of the list. One that is
// being cancelled is only taken out: its cancel callback completes it. The device lock is held.
template <typename Complete>
void completeNewest(PendingRequests& pending, Complete complete) {
  IoRequest* const request = pending.newest();
  if (request == nullptr) return;
  const RequestReference reference(*request);
  if (framework::succeeded(request->unmarkCancelable())) complete(*request);
  pending.remove(request);
}

}  // namespace

void PipeReader::runServer() {
  try {
    PipeReader::serverThread();
  } catch (const std::exception& failure) {
    logError(kNoError, "Server thread failed: %s", failure.what());
  }
}

std::uint32_t PipeReader::serverThread() {
  const std::uint32_t created = createPipes();
  if (created != platform::error::kSuccess) return created;
  for (;;) {
    if (stopRequested()) {
      logDebug("Server thread completed");
      return platform::error::kSuccess;
    }
    switch (awaitInsertRequest()) {
      case InsertRequest::Stopped:
        break;
      case InsertRequest::None:
        return platform::error::kInvalidState;
      case InsertRequest::Waiting:
        if (connectPipes() == platform::error::kSuccess) {
          serveAgent();
        } else {
          awaitReconnect();
        }
        break;
    }
  }
}

PipeReader::InsertRequest PipeReader::awaitInsertRequest() {
  platform::MutexLock lock(requestListMutex_);
  insertRequestCondition_.waitFor(lock, times_.insertRequest,
                                  [this] { return stopRequested() || !pendingInsert_.empty(); });
  if (stopRequested()) return InsertRequest::Stopped;
  if (!pendingInsert_.empty()) return InsertRequest::Waiting;
  // Deliberately the end of the thread: a reader that nobody waits on stops serving.
  logError(platform::error::kInvalidState, "Failed to wait for card insertion request");
  return InsertRequest::None;
}

void PipeReader::awaitReconnect() {
  platform::MutexLock lock(stopMutex_);
  stopCondition_.waitFor(lock, times_.reconnect, [this] { return stopRequested(); });
}

void PipeReader::serveAgent() {
  PipeStream events(eventCalls_, eventPipe_);
  try {
    completeInsertOnConnect();
  } catch (const std::exception& failure) {
    logError(kNoError, "Failed to handle connection: %s", failure.what());
  }
  while (!stopRequested()) {
    logDebug("Waiting for command...");
    std::uint32_t code = 0;
    if (!events.readNumber(code)) {
      logError(platform::lastError(), "Event named pipe read error");
      handleEventPipeError();
      return;
    }
    try {
      handleEvent(events, code);
    } catch (const std::exception& failure) {
      // One event that cannot be handled, a log file that cannot be made for one, is no reason to
      // stop listening.
      logError(kNoError, "Failed to handle event: %s", failure.what());
    }
  }
}

void PipeReader::completeInsertOnConnect() {
  const platform::MutexLock presence(presenceMutex_);
  if (!pendingInsert_.empty() && initializeProtocols()) {
    unmarkAndCompleteInsertIrps(status::kSuccess, SCARD_SWALLOWED);
  }
}

void PipeReader::handleEvent(PipeStream& events, std::uint32_t code) {
  logDebug("Event received");
  switch (static_cast<AgentEvent>(code)) {
    case AgentEvent::CardRemoved:
      handleCardRemoved();
      break;
    case AgentEvent::CardInserted:
      handleCardInserted();
      break;
    case AgentEvent::SessionLogId:
      readSessionLogId(events);
      break;
    default:
      logError(kNoError, "Unknown event received:%d", static_cast<std::int32_t>(code));
      break;
  }
}

void PipeReader::handleCardRemoved() {
  {
    const platform::MutexLock presence(presenceMutex_);
    logInfo("Card removed");
    setCardReady(0);
    // Deliberate: with no request waiting for the removal the state stays as it is.
    if (!pendingRemove_.empty()) unmarkAndCompleteRemoveIrps(status::kSuccess, SCARD_ABSENT);
  }
  setSessionLogId(kNullSessionLogId);
}

void PipeReader::handleCardInserted() {
  const platform::MutexLock presence(presenceMutex_);
  logInfo("Card inserted");
  {
    const TracedLock lock("PipeReader::handleEvent", device().deviceLock(), __LINE__);
    setState(SCARD_SWALLOWED);
    initializeProtocols();  // whatever it gives: the card is there
  }
  if (!pendingInsert_.empty()) unmarkAndCompleteInsertIrps(status::kSuccess, SCARD_SWALLOWED);
}

// Has no part in the presence of a card and takes no lock: an agent that announces an id and
// never sends it must not hold up the requests.
void PipeReader::readSessionLogId(PipeStream& events) {
  std::uint32_t size = 0;
  if (!events.readNumber(size)) {
    logError(platform::lastError(), "Failed to read session log id size");
    return;
  }
  if (size == 0) {
    logError(static_cast<std::uint32_t>(kEmptySessionLogId),
             "Session log ID size is 0. Session log ID not set");
    return;
  }
  std::vector<std::uint8_t> bytes;
  switch (events.readPayload(size, bytes)) {
    case PipeStream::Payload::Read:
      setSessionLogId(std::string(bytes.begin(), bytes.end()));
      break;
    case PipeStream::Payload::Failed:
      logError(platform::lastError(), "Failed to read session log id");
      break;
    case PipeStream::Payload::NoMemory:
      logError(platform::lastError(), "No memory for session log id of size %u", size);
      break;
  }
}

void PipeReader::handleEventPipeError() {
  const platform::MutexLock presence(presenceMutex_);
  const TracedLock lock("PipeReader::handleEventPipeError", device().deviceLock(), __LINE__);
  setState(SCARD_ABSENT);
  setCardReady(0);
  if (!pendingRemove_.empty()) unmarkAndCompleteRemoveIrps(status::kSuccess, SCARD_ABSENT);
  if (!pendingInsert_.empty()) unmarkAndCompleteInsertIrps(status::kCancelled, SCARD_ABSENT);
  disconnectPipes();
}

// The two differ on purpose in when the state is set: after an insertion's requests, before a
// removal's.
void PipeReader::unmarkAndCompleteInsertIrps(framework::HRESULT status, std::uint32_t newState) {
  const TracedLock lock("PipeReader::unmarkAndCompleteInsertIrps", device().deviceLock(), __LINE__);
  while (!pendingInsert_.empty()) {
    completeNewest(pendingInsert_,
                   [status](IoRequest& request) { request.completeWithInformation(status, 0); });
  }
  setState(newState);
}

void PipeReader::unmarkAndCompleteRemoveIrps(framework::HRESULT status, std::uint32_t newState) {
  const TracedLock lock("PipeReader::unmarkAndCompleteRemoveIrps", device().deviceLock(), __LINE__);
  setState(newState);
  while (!pendingRemove_.empty()) {
    completeNewest(pendingRemove_,
                   [status](IoRequest& request) { request.completeWithInformation(status, 0); });
  }
}

void PipeReader::shutdown() {
  setState(SCARD_ABSENT);
  const auto cancelNewest = [this](PendingRequests& pending, int line) {
    const TracedLock lock("PipeReader::shutdown", device().deviceLock(), line);
    completeNewest(pending, [](IoRequest& request) { request.complete(status::kCancelled); });
  };
  while (!pendingRemove_.empty()) cancelNewest(pendingRemove_, __LINE__);
  while (!pendingInsert_.empty()) cancelNewest(pendingInsert_, __LINE__);
}

}  // namespace zelta
