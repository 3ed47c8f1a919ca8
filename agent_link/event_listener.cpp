#include "agent_link/event_listener.h"

#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "contract/wire.h"
#include "diagnostics/log.h"
#include "diagnostics/log_output.h"
#include "platform/process/error.h"

namespace zelta {

namespace {

namespace error = platform::error;

// The agent sent a session log id that is empty or too long. There is no system error for it.
constexpr std::int32_t kBadSessionLogId = -501;
// Intentional: a longer id is refused, since each line of the log carries it. Bytes.
constexpr std::uint32_t kLongestSessionLogId = 1024;

}  // namespace

EventListener::EventListener(PipePair& pipes, WaitingRequests& waiting, AgentEventHandler& handler,
                             const AgentLinkTimes& times)
    : pipes_(pipes), waiting_(waiting), handler_(handler), times_(times) {
  thread_ = std::thread([this] { run(); });
}

void EventListener::run() {
  try {
    (void)serve();  // published
  } catch (const std::exception& failure) {
    logError(kNoError, "Server thread failed: %s", failure.what());
    publish(error::kGenFailure);
    endRequests();
  }
}

// Nobody else would: a request that waits for a card learns that none will come.
void EventListener::endRequests() {
  try {
    handler_.agentLost();
  } catch (const std::exception& failure) {
    logError(kNoError, "Failed to end requests: %s", failure.what());
  }
}

std::uint32_t EventListener::serve() {
  const std::uint32_t created = publish(pipes_.create());
  if (created != error::kSuccess) return created;
  for (;;) {
    if (stopRequested()) {
      logDebug("Server thread completed");
      return error::kSuccess;
    }
    switch (awaitInsertionRequest()) {
      case Awaited::kStop:
        break;
      case Awaited::kNobody:
        return error::kInvalidState;
      case Awaited::kRequest:
        if (pipes_.connect() == error::kSuccess) {
          serveAgent();
        } else {
          awaitReconnect();
        }
        break;
    }
  }
}

std::uint32_t EventListener::result() {
  const platform::MutexLock lock(waiting_.mutex());
  return result_;
}

std::uint32_t EventListener::publish(std::uint32_t code) {
  const platform::MutexLock lock(waiting_.mutex());
  return result_ = code;
}

EventListener::Awaited EventListener::awaitInsertionRequest() {
  platform::MutexLock lock(waiting_.mutex());
  const bool came = waiting_.awaitInsertionRequest(lock, times_.insertRequest,
                                                   [this] { return stopRequested(); });
  if (stopRequested()) return Awaited::kStop;
  if (came) return Awaited::kRequest;
  // Intentional: a reader without an insertion request stops serving. Decided and published under
  // one lock, so that no request is added in between.
  logError(error::kInvalidState, "Failed to wait for card insertion request");
  result_ = error::kInvalidState;
  return Awaited::kNobody;
}

void EventListener::awaitReconnect() {
  platform::MutexLock lock(stopMutex_);
  stopCondition_.waitFor(lock, times_.reconnect, [this] { return stopRequested(); });
}

void EventListener::serveAgent() {
  PipeStream events(pipes_.event());
  try {
    handler_.agentConnected();
  } catch (const std::exception& failure) {
    logError(kNoError, "Failed to handle connection: %s", failure.what());
  }
  while (!stopRequested()) {
    logDebug("Waiting for command...");
    const std::optional<std::uint32_t> code = events.readNumber();
    if (!code.has_value()) {
      logError(platform::lastError(), "Event named pipe read error");
      handler_.agentLost();
      return;
    }
    try {
      handleEvent(events, *code);
    } catch (const std::exception& failure) {
      // Keeps listening after an event that cannot be handled, for example because no log file can
      // be made.
      logError(kNoError, "Failed to handle event: %s", failure.what());
    }
  }
}

void EventListener::handleEvent(PipeStream& events, std::uint32_t code) {
  logDebug("Event received");
  switch (static_cast<AgentEvent>(code)) {
    case AgentEvent::kCardRemoved:
      logInfo("Card removed");
      handler_.cardRemoved();
      setSessionLogId(kNullSessionLogId);
      break;
    case AgentEvent::kCardInserted:
      logInfo("Card inserted");
      handler_.cardInserted();
      break;
    case AgentEvent::kSessionLogId:
      readSessionLogId(events);
      break;
    default:
      logError(kNoError, "Unknown event received:%d", static_cast<std::int32_t>(code));
      break;
  }
}

// Takes no lock: an agent that announces an id and never sends it must not hold up the requests.
void EventListener::readSessionLogId(PipeStream& events) {
  const std::optional<std::uint32_t> size = events.readNumber();
  if (!size.has_value()) {
    logError(platform::lastError(), "Failed to read session log id size");
    return;
  }
  if (*size == 0 || *size > kLongestSessionLogId) {
    logError(static_cast<std::uint32_t>(kBadSessionLogId),
             "Session log ID size is %u. Session log ID not set", *size);
    // The next event comes after its bytes.
    if (!events.skip(*size)) logError(platform::lastError(), "Failed to read session log id");
    return;
  }
  std::vector<std::uint8_t> bytes;
  if (events.readPayload(*size, bytes) == PipeStream::Payload::kRead) {
    setSessionLogId(std::string(bytes.begin(), bytes.end()));
  } else {
    logError(platform::lastError(), "Failed to read session log id");
  }
}

void EventListener::requestStop() {
  {
    const platform::MutexLock lock(stopMutex_);
    stop_.exchange(true);
  }
  stopCondition_.notifyAll();
  waiting_.wakeInsertionWait();
}

}  // namespace zelta
