#include "agent/link/driver_connection.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include "contract/bytes.h"
#include "contract/wire.h"
#include "platform/process/never_destroyed.h"

namespace zelta::agent {

namespace {

// Status words that the agent answers by itself.
const Bytes& noPreciseDiagnosis() {
  static platform::NeverDestroyed<Bytes> bytes(Bytes{0x6F, 0x00});
  return bytes.get();
}

// The answer that is given in time if the card is late.
const Bytes& lateAnswer(Command::Kind kind) {
  static platform::NeverDestroyed<Bytes> none;
  return kind == Command::Kind::kTransmit ? noPreciseDiagnosis() : none.get();
}

struct Query {
  AgentCommand code;
  Command::Kind kind;
  const char* name;
};

constexpr Query kQueries[] = {
    {AgentCommand::kQueryAtrReset, Command::Kind::kAtrWithReset, "ATR query with reset"},
    {AgentCommand::kQueryAtr, Command::Kind::kAtr, "ATR query"},
    {AgentCommand::kQueryTransmit, Command::Kind::kTransmit, "Transmit"},
};

template <typename Matches>
const Query* findQuery(Matches matches) {
  const Query* const found = std::find_if(std::begin(kQueries), std::end(kQueries), matches);
  return found == std::end(kQueries) ? nullptr : found;
}

// What may be logged of an APDU: its header and length, no data.
std::string describeApdu(const Bytes& apdu) {
  const std::size_t header = 4;
  const Bytes shown(apdu.begin(),
                    apdu.begin() + static_cast<std::ptrdiff_t>(std::min(apdu.size(), header)));
  return " " + toHex(shown) + " (" + std::to_string(apdu.size()) + " bytes)";
}

}  // namespace

DriverConnection::DriverConnection(PipeConnection& commands, PipeConnection& events, CardSlot& slot,
                                   CommandThreads& threads, const Settings& settings,
                                   std::function<void()> onAlive, OnFailure onFailure, Log& log)
    : commands_(commands),
      events_(events),
      slot_(slot),
      threads_(threads),
      settings_(settings),
      onAlive_(std::move(onAlive)),
      log_(log),
      reporter_(
          events, settings.events, [this] { seenAlive(); }, [this] { stop(); },
          std::move(onFailure), log) {}

void DriverConnection::seenAlive() {
  if (!alive_ && !alive_.exchange(true)) onAlive_();
}

void DriverConnection::stop() {
  commands_.cancel();
  events_.cancel();
  threads_.abandon(*this);
}

void DriverConnection::serve() {
  {
    const CardSlot::Observation observation(slot_, reporter_);
    reporter_.start();
    threads_.serve(*this);
  }
  stop();
}

std::optional<Command> DriverConnection::read() {
  Command command;
  while (const std::optional<std::uint32_t> code = beginCommand(command)) {
    if (*code == static_cast<std::uint32_t>(AgentCommand::kNotifyCardReady)) {
      passReady();
      continue;
    }
    const Query* const query = findQuery(
        [code](const Query& known) { return *code == static_cast<std::uint32_t>(known.code); });
    if (query == nullptr) {
      log_.error("Unknown command " + std::to_string(*code) + "; dropping the connection");
      return std::nullopt;
    }
    command.kind = query->kind;
    if (query->kind != Command::Kind::kTransmit) return command;
    std::optional<platform::SecretBytes> apdu = readApdu(command.cardLimit);
    if (!apdu) return std::nullopt;
    command.apdu = std::move(*apdu);
    return command;
  }
  return std::nullopt;
}

std::optional<std::uint32_t> DriverConnection::beginCommand(Command& command) {
  // Only a command's first byte may take any time.
  if (!check(commands_.awaitCommand(), "")) return std::nullopt;
  const SteadyClock::time_point begin = SteadyClock::now();
  command.cardLimit = begin + settings_.answerLimit;
  command.driverLimit = begin + settings_.driverLimit;
  seenAlive();
  reporter_.commandBegan();
  return readNumber(command.cardLimit);
}

void DriverConnection::passReady() {
  log_.debug("Card ready");
  slot_.ready();
  reporter_.beginAnswer(kNoCard);  // no card; the command is dealt with
  reporter_.endAnswer();
}

std::optional<platform::SecretBytes> DriverConnection::readApdu(SteadyClock::time_point deadline) {
  const std::optional<std::uint32_t> length = readNumber(deadline);
  if (!length) return std::nullopt;
  // Length 0 is the code of another command: the driver has given this one up half-way.
  if (*length == 0 || *length > kMaximumApduLength) {
    log_.error("The driver announced an APDU of " + std::to_string(*length) +
               " bytes; dropping the connection");
    return std::nullopt;
  }
  platform::SecretBytes apdu{Bytes(*length)};
  if (!readField(apdu.data(), *length, deadline)) return std::nullopt;
  return apdu;
}

std::optional<std::uint32_t> DriverConnection::readNumber(SteadyClock::time_point deadline) {
  std::array<std::uint8_t, 4> field{};
  if (!readField(field.data(), field.size(), deadline)) return std::nullopt;
  return loadLittleEndian(field.data());
}

bool DriverConnection::readField(void* data, std::uint32_t size, SteadyClock::time_point deadline) {
  return check(commands_.read(data, size, deadline), "The driver's command stopped half-way");
}

bool DriverConnection::check(IoResult result, const char* timedOut) {
  if (result == IoResult::kGivenUp) {
    log_.error("The driver does not wait for its answer any more; dropping the connection");
  } else if (result == IoResult::kTimedOut) {
    log_.error(std::string(timedOut) + "; dropping the connection");
  }
  return result == IoResult::kDone;
}

std::string DriverConnection::describe(const Command& command) const {
  const Query* const query =
      findQuery([&command](const Query& known) { return known.kind == command.kind; });
  const bool showsApdu = command.kind == Command::Kind::kTransmit && log_.wants(Severity::kDebug);
  return query->name + (showsApdu ? describeApdu(command.apdu.get()) : std::string());
}

bool DriverConnection::answer(const Command& command, const Outcome& outcome) {
  if (outcome.result == Outcome::Result::kLate) {
    log_.warning(describe(command) + ": the card is not done in time");
    if (settings_.onLate) settings_.onLate(command);
    return answerOtherwise(command, lateAnswer(command.kind));
  }
  const bool answered = outcome.result == Outcome::Result::kAnswered;
  if (answered && command.kind == Command::Kind::kTransmit) {
    if (log_.wants(Severity::kDebug)) {
      log_.debug(describe(command) + ": " + std::to_string(outcome.data.size()) + " bytes");
    }
    return answerOtherwise(command, outcome.data.get());
  }
  if (answered && reporter_.beginAnswer(outcome.card)) {
    if (log_.wants(Severity::kDebug))
      log_.debug(describe(command) + ": " + toHex(outcome.data.get()));
    return write(command, outcome.data.get());
  }
  log_.debug(describe(command) + ": no card");
  reporter_.waitWritten(command.cardLimit);
  return answerOtherwise(command, {});
}

bool DriverConnection::answerOtherwise(const Command& command, const Bytes& bytes) {
  reporter_.beginAnswer(kNoCard);
  return write(command, bytes);
}

bool DriverConnection::write(const Command& command, const Bytes& bytes) {
  // A late answer would be read as the answer to the next command.
  if (SteadyClock::now() >= command.driverLimit) {
    log_.error("The answer comes too late for the driver; dropping the connection");
    return false;
  }
  if (!check(commands_.answer(bytes, command.driverLimit), "The driver does not take its answer")) {
    return false;
  }
  reporter_.endAnswer();
  return true;
}

}  // namespace zelta::agent
