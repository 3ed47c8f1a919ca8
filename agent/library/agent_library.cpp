// Implements the agent's public header.
#include <zelta/agent.h>

#include <atomic>
#include <stdexcept>
#include <utility>

#include "agent/card/card_backend.h"
#include "agent/link/pipe_client_port.h"
#include "agent/program/agent.h"
#include "agent/program/failure.h"
#include "agent/program/log.h"
#include "agent/program/session_id.h"
#include "platform/sync/sync.h"

namespace zelta {

// The card as the agent sees it.
class Card::Slot final : public agent::CardBackend {
 public:
  Slot(Card& card, bool isIn) : card_(card), isIn_(isIn) {}

  std::string name() const override { return "own"; }
  void start(agent::CardListener& listener) override {
    const platform::MutexLock lock(acting_);
    listener_ = &listener;
    if (isIn_) listener.cardInserted();
  }
  void stop() override {
    const platform::MutexLock lock(acting_);
    listener_ = nullptr;
  }
  Bytes reset() override {
    if (!isIn_) return {};
    card_.reset();
    return atr();
  }
  Bytes atr() override { return isIn_ ? card_.atr() : Bytes(); }
  Bytes transmit(const Bytes& command) override {
    return isIn_ ? card_.transmit(command) : Bytes();
  }
  void ready() override { card_.ready(); }
  std::string insert() override { return put(true) ? "" : "a card is in already"; }
  std::string remove() override { return put(false) ? "" : "no card is in"; }
  void interrupt() override { card_.interrupt(); }

  bool put(bool in) {
    const platform::MutexLock lock(acting_);
    if (isIn_ == in) return false;
    // The card answers by the time it is announced. Its removal is announced before it stops.
    if (!in && listener_ != nullptr) listener_->cardRemoved();
    isIn_ = in;
    if (in && listener_ != nullptr) listener_->cardInserted();
    return true;
  }

  // Makes the agent known as the one that serves the card; null for none.
  void setAgent(agent::Agent* agent) {
    const platform::MutexLock lock(serving_);
    agent_ = agent;
    if (stopped_ && agent_ != nullptr) agent_->stop();
  }
  void endService() {
    const platform::MutexLock lock(serving_);
    stopped_ = true;
    if (agent_ != nullptr) agent_->stop();
  }

 private:
  Card& card_;
  std::atomic<bool> isIn_;

  platform::Mutex acting_;  // held around each insertion or removal and its notice
  agent::CardListener* listener_ ZELTA_GUARDED_BY(acting_) = nullptr;  // not owned

  platform::Mutex serving_;
  bool stopped_ ZELTA_GUARDED_BY(serving_) = false;
  agent::Agent* agent_ ZELTA_GUARDED_BY(serving_) = nullptr;  // not owned
};

Card::Card(bool isIn) : slot_(std::make_unique<Slot>(*this, isIn)) {}

Card::~Card() = default;

bool Card::insert() { return slot_->put(true); }

bool Card::remove() { return slot_->put(false); }

void Card::stop() { slot_->endService(); }

// Makes an agent known to its card, for a scope.
class Card::Serving {
 public:
  Serving(Slot& slot, agent::Agent& agent) : slot_(slot) { slot_.setAgent(&agent); }
  ~Serving() { slot_.setAgent(nullptr); }
  Serving(const Serving&) = delete;
  Serving& operator=(const Serving&) = delete;

 private:
  Slot& slot_;
};

void serve(Card& card, const ServeOptions& options) {
  const bool isLogged = static_cast<bool>(options.log);
  agent::Log log(isLogged ? agent::Severity::kDebug : agent::Severity::kError,
                 [&options, isLogged](agent::Severity /*severity*/, const std::string& line) {
                   if (isLogged) options.log(line);
                 });
  agent::FailureNote failure([&card] { card.stop(); });
  agent::Agent::Settings settings;
  settings.reader = options.reader;
  settings.sessionId = options.sessionId.empty() ? agent::newSessionId() : options.sessionId;
  settings.onFailure = [&failure](const char* problem) { failure.take(problem); };
  const auto pipes = agent::makeSystemPipeClient();
  agent::Agent agent(*pipes, *card.slot_, settings, log);
  agent.start();
  {
    const Card::Serving serving(*card.slot_, agent);
    agent.run();
  }
  if (failure.problem() != nullptr) throw std::runtime_error(failure.problem());
}

}  // namespace zelta
