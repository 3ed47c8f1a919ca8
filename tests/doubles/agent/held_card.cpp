#include "tests/doubles/agent/held_card.h"

#include <stdexcept>
#include <utility>

namespace zelta::test {

Bytes heldAnswer(std::uint8_t number) { return {number, 0x90, 0x00}; }

Bytes heldAtr() { return {0x3B, 0x00}; }

void HeldCard::start(agent::CardListener& listener) {
  listener_ = &listener;
  if (state_.lock()->in) listener.cardInserted();
}

bool HeldCard::work() {
  auto state = state_.lock();
  state->busy = true;
  state.wait([](const State& now) { return !now.held || now.interrupted; });
  state->busy = false;
  return state->in && !state->mute;
}

Bytes HeldCard::reset() {
  if (!work()) return {};
  ++state_.lock()->resets;
  return heldAtr();
}

Bytes HeldCard::atr() { return work() ? heldAtr() : Bytes(); }

Bytes HeldCard::transmit(const Bytes&) {
  if (!work()) return {};
  const auto state = state_.lock();
  if (state->broken) throw std::runtime_error("the card is broken");
  return heldAnswer(++state->answers);
}

std::string HeldCard::insert() {
  if (std::exchange(state_.lock()->in, true)) return "a card is in already";
  listener_->cardInserted();
  return {};
}

std::string HeldCard::remove() {
  if (!state_.lock()->in) return "no card is in";
  listener_->cardRemoved();
  state_.lock()->in = false;
  return {};
}

}  // namespace zelta::test
