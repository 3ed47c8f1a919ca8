// A card that answers from a script. For tests: every delay, removal and insertion is written down.
#pragma once

#include <map>
#include <thread>

#include "agent/card/card_backend.h"
#include "agent/card/script.h"
#include "agent/link/pipe_client_port.h"
#include "contract/bytes.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

// Timed insertions and removals run on a thread of its own. Removing the card ends the command that
// it is busy with.
class ScriptCard final : public CardBackend {
 public:
  // `cardIn` overrides the script's.
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

  void trigger(On on, const Bytes& command);
  // The response after its delay; empty where the card goes meanwhile.
  Bytes respond(const ScriptResponse& response, const Bytes& command);
  void runTimed();
  std::string act(CardAction action);

  const Script script_;
  CardListener* listener_ = nullptr;  // non-owning; from start to stop

  platform::Mutex acting_;  // around each insertion and removal with its notice; before mutex_
  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  bool in_ ZELTA_GUARDED_BY(mutex_);
  std::uint64_t removals_ ZELTA_GUARDED_BY(mutex_) = 0;
  bool interrupted_ ZELTA_GUARDED_BY(mutex_) = false;
  std::multimap<SteadyClock::time_point, CardAction> due_ ZELTA_GUARDED_BY(mutex_);
  std::thread timer_;
};

}  // namespace zelta::agent
