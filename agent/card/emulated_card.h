// A card emulated by libcacard over an NSS certificate database: a CAC with one key and certificate
// per nickname, whose PIN is the database's password.
//
// The library keeps its state for the process: one such card at a time, and only one that was
// started per process.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/card/card_backend.h"
#include "contract/bytes.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

class EmulatedCard final : public CardBackend {
 public:
  struct Settings {
    std::string database;            // folder
    std::optional<std::string> pin;  // checked at the start; the card's user still has to give it
    std::vector<std::string> certificates;  // nicknames; empty for the demo database's
    bool cardIn = true;
  };

  explicit EmulatedCard(Settings settings);
  ~EmulatedCard() override;

  std::string name() const override { return "emulated"; }
  void start(CardListener& listener) override;
  void stop() override;
  Bytes reset() override;
  Bytes atr() override;
  Bytes transmit(const Bytes& command) override;
  void ready() override {}
  std::string insert() override;
  std::string remove() override;
  void interrupt() override {}  // a key operation ends by itself within a moment

 private:
  struct Reader;

  Bytes powerOn() ZELTA_REQUIRES(card_);

  Settings settings_;
  CardListener* listener_ = nullptr;  // non-owning; from start to stop

  platform::Mutex acting_;  // held around each insertion or removal and its notice
  bool in_ ZELTA_GUARDED_BY(acting_) = false;
  // Held around the card's calls; not taken by insertion and removal, so that a card can be pulled
  // while it works.
  platform::Mutex card_;
  // Taken away with `acting_` held, when no call is in the card.
  std::unique_ptr<Reader> reader_;
  // The ATR since the card was powered, and the number of that insertion.
  Bytes atr_ ZELTA_GUARDED_BY(card_);
  std::uint64_t poweredIn_ ZELTA_GUARDED_BY(card_) = 0;
  std::atomic<std::uint64_t> insertions_{0};
};

}  // namespace zelta::agent
