// A card back end whose answers a test holds back and lets go.
//
// Any thread may call. Answers to commands are numbered: 01 9000, 02 9000, ...; the ATR is 3B 00.
#pragma once

#include <cstdint>
#include <string>

#include "agent/card/card_backend.h"
#include "contract/bytes.h"
#include "platform/sync/sync.h"

namespace zelta::test {

class HeldCard : public agent::CardBackend {
 public:
  explicit HeldCard(bool in = true) : in_(in) {}

  // From now on the card works on a command until `letGo`.
  void hold();
  void letGo();
  // Until the card works on a command.
  void waitUntilBusy();
  bool isBusy();
  // From now on the card answers nothing, though it is in.
  void setMute(bool mute);
  // From now on transmits throw "the card is broken".
  void breakDown();
  int resets();
  int readyNotices();

  std::string name() const override { return "held"; }
  void start(agent::CardListener& listener) override;
  void stop() override {}
  Bytes reset() override;
  Bytes atr() override;
  Bytes transmit(const Bytes& command) override;
  void ready() override;
  std::string insert() override;
  std::string remove() override;
  void interrupt() override;

 private:
  // False if the card does not answer.
  bool work();

  agent::CardListener* listener_ = nullptr;
  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  bool in_ ZELTA_GUARDED_BY(mutex_);
  bool held_ ZELTA_GUARDED_BY(mutex_) = false;
  bool busy_ ZELTA_GUARDED_BY(mutex_) = false;
  bool broken_ ZELTA_GUARDED_BY(mutex_) = false;
  bool mute_ ZELTA_GUARDED_BY(mutex_) = false;
  bool interrupted_ ZELTA_GUARDED_BY(mutex_) = false;
  int resets_ ZELTA_GUARDED_BY(mutex_) = 0;
  int readyNotices_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::uint8_t answers_ ZELTA_GUARDED_BY(mutex_) = 0;
};

// The answer with this number.
Bytes heldAnswer(std::uint8_t number);
Bytes heldAtr();

}  // namespace zelta::test
