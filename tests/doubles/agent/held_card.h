// A card back end whose answers a test holds back and releases.
//
// Any thread may call. Answers to commands are numbered: 01 9000, 02 9000, ...; the ATR is 3B 00.
#pragma once

#include <cstdint>
#include <string>

#include "agent/card/card_backend.h"
#include "contract/bytes.h"
#include "tests/support/shared.h"

namespace zelta::test {

class HeldCard : public agent::CardBackend {
 public:
  explicit HeldCard(bool in = true) { state_.lock()->in = in; }

  // Makes the card work on each command until `letGo`.
  void hold() { state_.lock()->held = true; }
  void letGo() { state_.lock()->held = false; }
  // Blocks until the card has a command.
  void waitUntilBusy() { state_.lock().wait(&State::busy); }
  bool isBusy() { return state_.lock()->busy; }
  // If set, the card does not answer although it is in.
  void setMute(bool mute) { state_.lock()->mute = mute; }
  // Makes later transmits throw "the card is broken".
  void breakDown() { state_.lock()->broken = true; }
  int resets() { return state_.lock()->resets; }
  int readyNotices() { return state_.lock()->readyNotices; }

  std::string name() const override { return "held"; }
  void start(agent::CardListener& listener) override;
  void stop() override {}
  Bytes reset() override;
  Bytes atr() override;
  Bytes transmit(const Bytes& command) override;
  void ready() override { ++state_.lock()->readyNotices; }
  std::string insert() override;
  std::string remove() override;
  void interrupt() override { state_.lock()->interrupted = true; }

 private:
  struct State {
    bool in = false;
    bool held = false;
    bool busy = false;
    bool broken = false;
    bool mute = false;
    bool interrupted = false;
    int resets = 0;
    int readyNotices = 0;
    std::uint8_t answers = 0;
  };

  // False if the card does not answer.
  bool work();

  agent::CardListener* listener_ = nullptr;
  Shared<State> state_;
};

// The answer with this number.
Bytes heldAnswer(std::uint8_t number);
Bytes heldAtr();

}  // namespace zelta::test
