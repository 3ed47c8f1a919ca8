// A card that answers from a script, for tests: every delay, removal and insertion is in the
// script.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "agent/card/card_backend.h"
#include "agent/card/script.h"
#include "contract/bytes.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

// Timed insertions and removals run on a separate thread. A removal ends the command in progress.
class ScriptCard final : public CardBackend {
 public:
  // `cardIn` is whether the card is in at the start, whatever the script says.
  ScriptCard(Script script, bool cardIn);
  ~ScriptCard() override;

  std::string name() const override { return "script"; }
  void start(CardListener& listener) override;
  void stop() override;
  Bytes reset() override;
  Bytes atr() override;
  Bytes transmit(const Bytes& command) override;
  void ready() override;
  std::string insert() override;
  std::string remove() override;
  void interrupt() override;

 private:
  using On = Script::Trigger::On;
  using Clock = std::chrono::steady_clock;

  void trigger(On on, const Bytes& command);
  // The response after its delay; empty if the card goes meanwhile.
  Bytes respond(const ScriptResponse& response, const Bytes& command);
  void runTimed();
  std::string act(CardAction action);

  Script script_;
  CardListener* listener_ = nullptr;  // non-owning; from start to stop

  // Held around each insertion or removal and its notice.
  platform::Mutex acting_ ZELTA_ACQUIRED_BEFORE(mutex_);
  platform::Mutex mutex_;
  platform::ConditionVariable changed_;  // what is due
  platform::ConditionVariable removed_;  // wakes a delayed response
  bool in_ ZELTA_GUARDED_BY(mutex_);
  std::uint64_t removals_ ZELTA_GUARDED_BY(mutex_) = 0;
  bool interrupted_ ZELTA_GUARDED_BY(mutex_) = false;
  std::multimap<Clock::time_point, CardAction> due_ ZELTA_GUARDED_BY(mutex_);
  std::thread timer_;
};

// The card of the script in `file`; `cardIn` overrides the script's. Throws std::runtime_error with
// a message for people if the file cannot be read or has an error in it.
std::unique_ptr<CardBackend> loadScriptCard(const std::string& file, std::optional<bool> cardIn);

}  // namespace zelta::agent
