#include "agent/driver_connection.h"

#include <algorithm>
#include <array>
#include <utility>

#include "agent_link/wire.h"

namespace zelta::agent {

namespace {

// Status words that the agent answers by itself.
const Bytes& noPreciseDiagnosis() {
  static const auto* const bytes = new Bytes{0x6F, 0x00};  // never destroyed
  return *bytes;
}

const Bytes& wrongLength() {
  static const auto* const bytes = new Bytes{0x67, 0x00};  // never destroyed
  return *bytes;
}

// What may be logged of an APDU: its header and length, no data.
std::string describe(const Bytes& apdu) {
  const std::size_t header = 4;
  const Bytes shown(apdu.begin(),
                    apdu.begin() + static_cast<std::ptrdiff_t>(std::min(apdu.size(), header)));
  return toHex(shown) + " (" + std::to_string(apdu.size()) + " bytes)";
}

}  // namespace

DriverConnection::DriverConnection(PipeConnection& commands, PipeConnection& events, CardSlot& slot,
                                   const Settings& settings, std::function<void()> onAlive,
                                   OnFailure onFailure, Log& log)
    : commands_(commands),
      events_(events),
      slot_(slot),
      settings_(settings),
      onAlive_(std::move(onAlive)),
      log_(log),
      reporter_(
          events, settings.events, [this] { seenAlive(); }, [this] { stop(); },
          std::move(onFailure), log) {}

void DriverConnection::seenAlive() {
  if (!alive_.exchange(true)) onAlive_();
}

void DriverConnection::stop() {
  commands_.cancel();
  events_.cancel();
  slot_.setAborted(true);
}

void DriverConnection::serve() {
  slot_.setAborted(false);  // by the connection before; cancelled pipes still end this one
  {
    const CardSlot::Observation observation(slot_, reporter_);
    reporter_.start();
    while (serveOne()) {
    }
  }
  stop();
}

bool DriverConnection::serveOne() {
  std::array<std::uint8_t, 4> code{};
  // Only a command's first byte may take any time.
  if (commands_.read(code.data(), 1, std::nullopt) != IoResult::Done) return false;
  const Deadline begin = SteadyClock::now();
  const Limits limits{begin + settings_.answerLimit, begin + settings_.driverLimit};
  seenAlive();
  reporter_.commandBegan();
  if (!readPart(code.data() + 1, code.size() - 1, limits.card)) return false;
  if (!dispatch(decodeNumber(code), limits)) return false;
  reporter_.endAnswer();
  return true;
}

bool DriverConnection::dispatch(std::uint32_t code, const Limits& limits) {
  switch (static_cast<AgentCommand>(code)) {
    case AgentCommand::QueryAtrReset:
      return answerAtr(CardSlot::Operation::Reset, limits);
    case AgentCommand::QueryAtr:
      return answerAtr(CardSlot::Operation::Atr, limits);
    case AgentCommand::QueryTransmit:
      return answerTransmit(limits);
    case AgentCommand::NotifyCardReady:
      log_.debug("Card ready");
      slot_.ready();
      return reporter_.beginAnswer(kNoCard);  // there is none; the command is dealt with
  }
  log_.error("Unknown command " + std::to_string(code) + "; dropping the connection");
  return false;
}

bool DriverConnection::answerAtr(CardSlot::Operation operation, const Limits& limits) {
  const CardSlot::Answer answer = slot_.ask(operation, {}, limits.card);
  const bool resets = operation == CardSlot::Operation::Reset;
  const std::string what = resets ? "ATR query with reset" : "ATR query";
  if (answer.result == CardSlot::Result::Aborted) return false;
  if (answer.result == CardSlot::Result::Answered && reporter_.beginAnswer(answer.card)) {
    log_.debug(what + ": " + toHex(answer.data));
    return writeFields(answer.data, limits.driver);
  }
  if (answer.result == CardSlot::Result::Late) {
    log_.warning(what + ": the card is not done in time");
  } else {
    log_.debug(what + ": no card");
    reporter_.waitWritten(limits.card);
  }
  return writeAnswer({}, limits.driver);
}

bool DriverConnection::answerTransmit(const Limits& limits) {
  Bytes apdu;
  if (!readApdu(&apdu, limits.card)) return false;
  if (apdu.empty()) return writeAnswer(wrongLength(), limits.driver);
  const CardSlot::Answer answer = slot_.ask(CardSlot::Operation::Transmit, apdu, limits.card);
  const std::string what = log_.wants(LogLevel::Debug) ? "Transmit " + describe(apdu) : "Transmit";
  switch (answer.result) {
    case CardSlot::Result::Aborted:
      return false;
    case CardSlot::Result::Answered:
      log_.debug(what + ": " + std::to_string(answer.data.size()) + " bytes");
      return writeAnswer(answer.data, limits.driver);
    case CardSlot::Result::Late:
      log_.warning(what + ": the card is not done in time");
      return writeAnswer(noPreciseDiagnosis(), limits.driver);
    case CardSlot::Result::NoCard:
      break;
  }
  log_.debug(what + ": no card");
  reporter_.waitWritten(limits.card);
  return writeAnswer({}, limits.driver);
}

bool DriverConnection::readApdu(Bytes* apdu, Deadline deadline) {
  std::array<std::uint8_t, 4> field{};
  if (!readPart(field.data(), field.size(), deadline)) return false;
  const std::uint32_t length = decodeNumber(field);
  if (length > kMaximumApduLength) {
    log_.error("The driver announced an APDU of " + std::to_string(length) +
               " bytes; dropping the connection");
    return false;
  }
  apdu->resize(length);
  return length == 0 || readPart(apdu->data(), length, deadline);
}

bool DriverConnection::readPart(void* data, std::uint32_t size, Deadline deadline) {
  const IoResult result = commands_.read(data, size, deadline);
  if (result == IoResult::TimedOut) {
    log_.error("The driver's command stopped half-way; dropping the connection");
  }
  return result == IoResult::Done;
}

bool DriverConnection::writeAnswer(const Bytes& answer, Deadline deadline) {
  reporter_.beginAnswer(kNoCard);
  return writeFields(answer, deadline);
}

bool DriverConnection::writeFields(const Bytes& answer, Deadline deadline) {
  // The driver would take it for its next command's.
  if (SteadyClock::now() >= deadline) {
    log_.error("The answer comes too late for the driver; dropping the connection");
    return false;
  }
  const auto length = static_cast<std::uint32_t>(answer.size());
  const auto field = encodeNumber(length);
  return writeField(field.data(), field.size(), deadline) &&
         (length == 0 || writeField(answer.data(), length, deadline));
}

bool DriverConnection::writeField(const void* data, std::uint32_t size, Deadline deadline) {
  const IoResult result = commands_.write(data, size, deadline);
  if (result == IoResult::TimedOut) {
    log_.error("The driver does not take its answer; dropping the connection");
  }
  return result == IoResult::Done;
}

}  // namespace zelta::agent
