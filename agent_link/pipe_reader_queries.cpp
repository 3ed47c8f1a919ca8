// What the reader asks of the agent, each one exchange on the command pipe. A query that the agent
// leaves unanswered does not resynchronise the pipe: a late answer is read as the next one's
// beginning, which is why an agent must never send one.
#include <algorithm>
#include <array>
#include <optional>
#include <system_error>

#include "agent_link/pipe_reader.h"
#include "agent_link/wire.h"
#include "diagnostics/log.h"
#include "driver/smartcard_ioctl.h"
#include "platform/error.h"

namespace zelta {

namespace {

// The response to a command that the card could not be given.
constexpr std::array<std::uint8_t, 2> kCommandNotAccepted{0x69, 0x01};

constexpr std::uint64_t kDumpWidth = 16;  // bytes per line

// Of a log line's 255 characters no more than these can show.
constexpr std::size_t kShownBytes = 128;

std::string upperHex(const std::vector<std::uint8_t>& bytes) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  const std::size_t count = std::min(bytes.size(), kShownBytes);
  text.reserve(2 * count);
  for (std::size_t i = 0; i < count; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0x0F];
  }
  return text;
}

// The log lines of an ATR exchange where its two users differ.
struct AtrTexts {
  const char* tag;
  const char* writeFailed;
  const char* readFailed;
};

constexpr AtrTexts kQueryAtrTexts{"[QueryATR]", "Failed to write ATR request command",
                                  "Failed to read ATR data"};
constexpr AtrTexts kCheckAtrTexts{"[CheckATR]", "Failed to write QueryAtr command",
                                  "Failed to read ATR"};

bool fail(const AtrTexts& texts, const char* message) {
  logError(platform::lastError(), "%s%s", texts.tag, message);
  return false;
}

bool askAtr(PipeStream& pipe, AgentCommand command, const AtrTexts& texts,
            std::vector<std::uint8_t>& atr) {
  if (!pipe.hasPipe()) {
    logError(kNoError, "%sInvalid named pipe handle", texts.tag);
    return false;
  }
  if (!pipe.writeNumber(static_cast<std::uint32_t>(command))) return fail(texts, texts.writeFailed);
  pipe.flush();
  std::uint32_t size = 0;
  if (!pipe.readNumber(size)) return fail(texts, "Failed to read ATR size");
  if (size == 0) {
    logError(kNoError, "%sInvalid ATR size (%u)", texts.tag, size);
    return false;
  }
  switch (pipe.readPayload(size, atr)) {
    case PipeStream::Payload::Read:
      logInfo("%sATR:%s", texts.tag, upperHex(atr).c_str());
      return true;
    case PipeStream::Payload::Failed:
      return fail(texts, texts.readFailed);
    case PipeStream::Payload::NoMemory:
      break;
  }
  logError(platform::lastError(), "%sNo memory for ATR of size %u", texts.tag, size);
  return false;
}

}  // namespace

template <typename Exchange>
QueryResult PipeReader::runGuarded(const char* name, Exchange exchange) {
  // Begun before the watchdog, so that its time-out always ends this series.
  PipeStream pipe(commandCalls_, commandPipe_);
  std::optional<QueryWatchdog> watchdog;
  try {
    watchdog.emplace([this] { cancelQuery(); }, times_.query);
  } catch (const std::system_error& failure) {
    logError(static_cast<std::uint32_t>(failure.code().value()), "Failed to start query watchdog");
    return QueryResult::Failure;
  }
  const bool answered = exchange(pipe);
  if (watchdog->timedOut()) {
    if (name != nullptr) logError(kNoError, "[%s]Timeout", name);
    return QueryResult::Timeout;
  }
  return answered ? QueryResult::Success : QueryResult::Failure;
}

void PipeReader::cancelQuery() {
  const platform::PipeHandleValue pipe = commandPipe_.get();
  if (pipe == platform::noPipe()) return;
  if (!commandCalls_.endSeries(pipe)) {
    logError(platform::lastError(), "Failed to cancel IO on the command named pipe");
  }
}

QueryResult PipeReader::QueryAtr(std::vector<std::uint8_t>& atr, bool reset) {
  const AgentCommand command = reset ? AgentCommand::QueryAtrReset : AgentCommand::QueryAtr;
  return runGuarded("QueryAtr",
                    [&](PipeStream& pipe) { return askAtr(pipe, command, kQueryAtrTexts, atr); });
}

QueryResult PipeReader::CheckATR() {
  std::vector<std::uint8_t> atr;
  return runGuarded(nullptr, [&](PipeStream& pipe) {
    return askAtr(pipe, AgentCommand::QueryAtr, kCheckAtrTexts, atr);
  });
}

QueryResult PipeReader::QueryTransmit(const std::vector<std::uint8_t>& command,
                                      std::vector<std::uint8_t>& response) {
  return runGuarded("QueryTransmit",
                    [&](PipeStream& pipe) { return askTransmit(pipe, command, response); });
}

bool PipeReader::askTransmit(PipeStream& pipe, const std::vector<std::uint8_t>& command,
                             std::vector<std::uint8_t>& response) {
  if (!pipe.hasPipe()) {
    logError(kNoError, "[QueryTransmit]Invalid named pipe handle");
    return false;
  }
  if (command.empty()) {
    logError(kNoError, "[QueryTransmit]Empty APDU, command not accepted");
    response.assign(kCommandNotAccepted.begin(), kCommandNotAccepted.end());
    return true;
  }
  const char* const failure = exchangeApdu(pipe, command, response);
  if (failure == nullptr) return true;
  const std::uint32_t code = platform::lastError();
  if (state() != SCARD_ABSENT) {
    logError(code, "[QueryTransmit]%s", failure);
    return false;
  }
  logInfo("[QueryTransmit]The card was removed, responding request with \"Command Not Accepted\"");
  response.assign(kCommandNotAccepted.begin(), kCommandNotAccepted.end());
  logByteDump(command.data(), command.size(), kDumpWidth);
  return true;
}

const char* PipeReader::exchangeApdu(PipeStream& pipe, const std::vector<std::uint8_t>& command,
                                     std::vector<std::uint8_t>& response) {
  if (!pipe.writeNumber(static_cast<std::uint32_t>(AgentCommand::QueryTransmit))) {
    return "Failed to write QueryTransmit command";
  }
  const auto size = static_cast<std::uint32_t>(command.size());
  if (!pipe.writeNumber(size)) return "Failed to write APDU request size";
  if (!pipe.write(command.data(), size)) return "Failed to write APDU request";
  pipe.flush();
  std::uint32_t responseSize = 0;
  if (!pipe.readNumber(responseSize)) return "Failed to read APDU response size";
  if (responseSize == 0) return "Invalid APDU response size (0)";
  switch (pipe.readPayload(responseSize, response)) {
    case PipeStream::Payload::Read:
      return nullptr;
    case PipeStream::Payload::Failed:
      response.clear();
      return "Failed to read APDU response";
    case PipeStream::Payload::NoMemory:
      break;
  }
  return "No memory for APDU response";
}

bool PipeReader::NotifyCardReady() {
  PipeStream pipe(commandCalls_, commandPipe_);
  if (!pipe.hasPipe()) {
    logError(kNoError, "[NotifyCardReady]Invalid named pipe handle");
    return false;
  }
  if (!pipe.writeNumber(static_cast<std::uint32_t>(AgentCommand::NotifyCardReady))) {
    logError(platform::lastError(), "Failed to send ready notification");
    return false;
  }
  logInfo("[NotifyCardReady]Notification sent");
  return true;
}

}  // namespace zelta
