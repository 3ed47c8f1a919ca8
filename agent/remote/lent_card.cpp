#include "agent/remote/lent_card.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace zelta::agent {

namespace {

struct Request {
  FrameKind frame;
  Command::Kind command;
  const char* name;
};

constexpr Request kRequests[] = {
    {FrameKind::kReset, Command::Kind::kAtrWithReset, "ATR query with reset"},
    {FrameKind::kAtr, Command::Kind::kAtr, "ATR query"},
    {FrameKind::kTransmit, Command::Kind::kTransmit, "Transmit"},
};

template <typename Matches>
const Request* findRequest(Matches matches) {
  const Request* const found = std::find_if(std::begin(kRequests), std::end(kRequests), matches);
  return found == std::end(kRequests) ? nullptr : found;
}

// A card's number on the line.
std::uint32_t numberOf(CardId card) { return static_cast<std::uint32_t>(card); }

}  // namespace

LentCard::LentCard(Line& line, CardSlot& slot, CommandThreads& threads, const Settings& settings,
                   OnGreeted onGreeted, Log& log)
    : line_(line),
      slot_(slot),
      threads_(threads),
      settings_(settings),
      onGreeted_(std::move(onGreeted)),
      log_(log),
      channel_(line, settings.times) {}

void LentCard::serve() {
  if (!channel_.greet()) return;
  const std::optional<std::chrono::microseconds> roundTrip = channel_.measureRoundTrip();
  if (!roundTrip) return;
  greeted_ = true;
  onGreeted_(channel_.peer(), *roundTrip);
  const CardSlot::Observation observation(slot_, *this);
  threads_.serve(*this);
}

void LentCard::stop() {
  if (greeted_) channel_.send(FrameKind::kBye);
  line_.cancel();
  threads_.abandon(*this);
}

std::optional<Command> LentCard::read() {
  while (std::optional<Frame> frame = channel_.next()) {
    if (frame->kind == FrameKind::kReady) {
      slot_.ready();
      continue;
    }
    const Request* const request =
        findRequest([&frame](const Request& known) { return frame->kind == known.frame; });
    if (request == nullptr || frame->payload.size() < kNumberSize) {
      channel_.refuse();
      return std::nullopt;
    }
    number_ = frame->number;
    if (loadLittleEndian(frame->payload.data()) != numberOf(slot_.card())) {
      log_.debug(std::string(request->name) + ": that card has left");
      channel_.send(FrameKind::kAnswer, number_);
      continue;
    }
    Command command;
    command.kind = request->command;
    const Bytes& payload = frame->payload.get();
    command.apdu = Bytes(payload.begin() + kNumberSize, payload.end());
    command.cardLimit = SteadyClock::now() + settings_.answerLimit;
    command.driverLimit = command.cardLimit;
    return command;
  }
  return std::nullopt;
}

bool LentCard::answer(const Command& command, const Outcome& outcome) {
  const std::string name =
      findRequest([&command](const Request& known) { return known.command == command.kind; })->name;
  platform::SecretBytes data;
  if (outcome.result == Outcome::Result::kLate) {
    log_.warning(name + ": the card is not done in time");
    if (settings_.onLate) settings_.onLate();
  } else if (outcome.data.size() > kLongestPayload) {
    log_.error(name + ": the card's answer is too long");
  } else {
    data = outcome.data;
  }
  if (log_.wants(Severity::kDebug))
    log_.debug(name + ": " + std::to_string(data.size()) + " bytes");
  channel_.send(FrameKind::kAnswer, number_, std::move(data));
  return true;
}

void LentCard::observing(CardId card) {
  if (card != kNoCard) cardArrived(card);
}

void LentCard::cardArrived(CardId card) { channel_.send(FrameKind::kCardIn, numberOf(card)); }

void LentCard::cardDeparted() { channel_.send(FrameKind::kCardOut); }

}  // namespace zelta::agent
