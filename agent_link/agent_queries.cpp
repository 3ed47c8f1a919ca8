#include "agent_link/agent_queries.h"

#include <algorithm>
#include <array>
#include <system_error>

#include "agent_link/query_watchdog.h"
#include "contract/bytes.h"
#include "contract/reader_states.h"
#include "contract/wire.h"
#include "diagnostics/log.h"
#include "platform/process/error.h"

namespace zelta {

namespace {

// The response if the command could not be passed to the card.
constexpr std::array<std::uint8_t, 2> kCommandNotAccepted{0x69, 0x01};

constexpr std::uint64_t kDumpWidth = 16;  // bytes per line

// More bytes than these do not fit into a log line's 255 characters.
constexpr std::size_t kShownBytes = 128;

// The differences between the two users of an ATR exchange, mostly log lines.
struct AtrTexts {
  const char* tag;
  const char* writeFailed;
  const char* readFailed;
  std::uint32_t kept;  // bytes of the ATR at most; the rest is of no use
};

constexpr AtrTexts kQueryAtrTexts{"[QueryATR]", "Failed to write ATR request command",
                                  "Failed to read ATR data", PipeStream::kAll};
constexpr AtrTexts kCheckAtrTexts{"[CheckATR]", "Failed to write QueryAtr command",
                                  "Failed to read ATR", PipeStream::kReadBlock};

bool fail(const AtrTexts& texts, const char* message) {
  logError(platform::lastError(), "%s%s", texts.tag, message);
  return false;
}

bool askAtr(PipeStream& stream, AgentCommand command, const AtrTexts& texts,
            std::vector<std::uint8_t>& atr) {
  if (!stream.writeNumber(static_cast<std::uint32_t>(command)))
    return fail(texts, texts.writeFailed);
  stream.flush();
  const std::optional<std::uint32_t> size = stream.readNumber();
  if (!size.has_value()) return fail(texts, "Failed to read ATR size");
  if (*size == 0) {
    logError(kNoError, "%sInvalid ATR size (%u)", texts.tag, *size);
    return false;
  }
  switch (stream.readPayload(*size, atr, texts.kept)) {
    case PipeStream::Payload::kRead:
      logInfo("%sATR:%s", texts.tag, toHex(atr.data(), std::min(atr.size(), kShownBytes)).c_str());
      return true;
    case PipeStream::Payload::kFailed:
      return fail(texts, texts.readFailed);
    case PipeStream::Payload::kNoMemory:
      break;
  }
  logError(platform::lastError(), "%sNo memory for ATR of size %u", texts.tag, *size);
  return false;
}

// What failed, or null; the reason is in the last error.
const char* exchangeApdu(PipeStream& stream, const Bytes& command, ResponseBuffer& response) {
  if (!stream.writeNumber(static_cast<std::uint32_t>(AgentCommand::kQueryTransmit))) {
    return "Failed to write QueryTransmit command";
  }
  const auto size = static_cast<std::uint32_t>(command.size());
  if (!stream.writeNumber(size)) return "Failed to write APDU request size";
  if (!stream.write(command.data(), size)) return "Failed to write APDU request";
  stream.flush();
  const std::optional<std::uint32_t> responseSize = stream.readNumber();
  if (!responseSize.has_value()) return "Failed to read APDU response size";
  if (*responseSize == 0) return "Invalid APDU response size (0)";
  switch (stream.readPayload(*responseSize, response)) {
    case PipeStream::Payload::kRead:
      return nullptr;
    case PipeStream::Payload::kFailed:
      response.clear();
      return "Failed to read APDU response";
    case PipeStream::Payload::kNoMemory:
      break;
  }
  return "No memory for APDU response";
}

void answerNotAccepted(ResponseBuffer& response) {
  response.assign(kCommandNotAccepted.data(), kCommandNotAccepted.size());
}

}  // namespace

// Marks the current exchange as a notification. The destructor waits until no thread is cancelling
// it any more; only then is the turn given up.
class AgentQueries::Notification {
 public:
  explicit Notification(AgentQueries& queries) : queries_(queries) {
    mark(NotificationState::kUnderWay);
  }
  ~Notification() { mark(NotificationState::kNone); }
  Notification(const Notification&) = delete;
  Notification& operator=(const Notification&) = delete;

 private:
  void mark(NotificationState state) {
    const platform::MutexLock lock(queries_.notificationMutex_);
    queries_.notification_ = state;
  }

  AgentQueries& queries_;
};

AgentQueries::AgentQueries(CancelablePipe& pipe, const Reader& reader,
                           std::chrono::milliseconds limit)
    : pipe_(pipe), reader_(reader), limit_(limit), watchdogThread_(limit) {}

AgentQueries::Turn::Turn(AgentQueries& queries) {
  const auto endNotification = [&queries] { return queries.cancelNotification(); };
  if (queries.turn_.take(queries.limit_, endNotification)) holder_.emplace(queries.turn_);
}

bool AgentQueries::hasPipe(const char* tag) const {
  if (PipeHandle::isValid(pipe_.handle())) return true;
  logError(kNoError, "%sInvalid named pipe handle", tag);
  return false;
}

QueryResult AgentQueries::timedOut(const Name& name) {
  if (name.logsTimeout) logError(kNoError, "[%s]Timeout", name.text);
  return QueryResult::kTimeout;
}

template <typename Exchange>
QueryResult AgentQueries::runGuarded(const Name& name, const Turn& turn, Exchange exchange) {
  if (!turn.holder_.has_value()) {
    logError(kNoError, "[%s]Another exchange did not end in time, nothing was sent", name.text);
    return timedOut(name);
  }
  // Begun before the watchdog, so that its time-out always ends this exchange.
  PipeStream stream(pipe_);
  std::optional<QueryWatchdog> watchdog;
  try {
    watchdog.emplace(watchdogThread_, [this] { cancel(); });
  } catch (const std::system_error& failure) {
    logError(static_cast<std::uint32_t>(failure.code().value()), "Failed to start query watchdog");
    return QueryResult::kFailure;
  }
  const bool answered = exchange(stream);
  if (watchdog->timedOut()) return timedOut(name);
  return answered ? QueryResult::kSuccess : QueryResult::kFailure;
}

void AgentQueries::cancel() {
  if (pipe_.handle() == platform::noPipe()) return;
  if (!pipe_.cancelCalls()) {
    logError(platform::lastError(), "Failed to cancel IO on the command named pipe");
  }
}

bool AgentQueries::cancelNotification() {
  const platform::MutexLock lock(notificationMutex_);
  if (notification_ == NotificationState::kUnderWay) {
    notification_ = NotificationState::kCancelled;
    cancel();
  }
  return notification_ != NotificationState::kNone;
}

QueryResult AgentQueries::queryAtr(Bytes& atr, bool reset) {
  if (!hasPipe(kQueryAtrTexts.tag)) return QueryResult::kFailure;
  return queryAtr(atr, reset, Turn(*this));
}

QueryResult AgentQueries::queryAtr(Bytes& atr, bool reset, const Turn& turn) {
  if (!hasPipe(kQueryAtrTexts.tag)) return QueryResult::kFailure;
  const AgentCommand command = reset ? AgentCommand::kQueryAtrReset : AgentCommand::kQueryAtr;
  return runGuarded({"QueryAtr", true}, turn, [&](PipeStream& stream) {
    return askAtr(stream, command, kQueryAtrTexts, atr);
  });
}

QueryResult AgentQueries::checkAtr() {
  if (!hasPipe(kCheckAtrTexts.tag)) return QueryResult::kFailure;
  Bytes atr;
  return runGuarded({"CheckATR", false}, Turn(*this), [&](PipeStream& stream) {
    return askAtr(stream, AgentCommand::kQueryAtr, kCheckAtrTexts, atr);
  });
}

QueryResult AgentQueries::transmit(const Bytes& command, ResponseBuffer& response) {
  if (!hasPipe("[QueryTransmit]")) return QueryResult::kFailure;
  if (command.empty()) {
    logError(kNoError, "[QueryTransmit]Empty APDU, command not accepted");
    answerNotAccepted(response);
    return QueryResult::kSuccess;
  }
  return runGuarded({"QueryTransmit", true}, Turn(*this),
                    [&](PipeStream& stream) { return askTransmit(stream, command, response); });
}

bool AgentQueries::askTransmit(PipeStream& stream, const Bytes& command, ResponseBuffer& response) {
  const char* const failure = exchangeApdu(stream, command, response);
  if (failure == nullptr) return true;
  const std::uint32_t code = platform::lastError();
  if (reader_.state() != SCARD_ABSENT) {
    logError(code, "[QueryTransmit]%s", failure);
    return false;
  }
  logInfo("[QueryTransmit]The card was removed, responding request with \"Command Not Accepted\"");
  answerNotAccepted(response);
  logByteDump(command.data(), command.size(), kDumpWidth);
  return true;
}

bool AgentQueries::notifyCardReady() {
  if (!hasPipe("[NotifyCardReady]")) return false;
  if (!turn_.take(limit_, [] { return false; })) {
    logError(kNoError, "[NotifyCardReady]Another exchange did not end in time, nothing was sent");
    logError(kNoError, "Failed to send ready notification");
    return false;
  }
  const ExchangeTurn::Holder holder(turn_);
  // Begun before it is marked, so that a thread that cancels a notification always ends this one.
  PipeStream stream(pipe_);
  const Notification notification(*this);
  if (!stream.writeNumber(static_cast<std::uint32_t>(AgentCommand::kNotifyCardReady))) {
    logError(platform::lastError(), "Failed to send ready notification");
    return false;
  }
  logInfo("[NotifyCardReady]Notification sent");
  return true;
}

}  // namespace zelta
