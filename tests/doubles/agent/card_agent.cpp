#include "tests/doubles/agent/card_agent.h"

#include <utility>

#include "contract/bytes.h"
#include "contract/wire.h"

namespace zelta::test {

using platform::MutexLock;

bool CardAgent::connect() {
  {
    const MutexLock lock(mutex_);
    askedForCard_ = false;
  }
  if (!link_.connect([this](const LinkAgent::Command& command) { return answer(command); })) {
    return false;
  }
  // With both pipes accepted the driver looks for a card.
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, PipeClient::kLimit,
                          [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return askedForCard_; });
}

void CardAgent::insert(Bytes atr) {
  setAtr(std::move(atr));
  link_.sendEvent(AgentEvent::kCardInserted);
}

void CardAgent::remove() {
  setAtr({});
  link_.sendEvent(AgentEvent::kCardRemoved);
}

void CardAgent::swap(Bytes atr) {
  // The new card is there first: the driver may ask as soon as it knows of the removal.
  setAtr(std::move(atr));
  link_.sendEvent(AgentEvent::kCardRemoved);
  link_.sendEvent(AgentEvent::kCardInserted);
}

void CardAgent::setCardIn(Bytes atr) { setAtr(std::move(atr)); }

void CardAgent::setAtr(Bytes atr) {
  const MutexLock lock(mutex_);
  atr_ = std::move(atr);
}

void CardAgent::respond(Respond respond) {
  const MutexLock lock(mutex_);
  respond_ = std::move(respond);
}

void CardAgent::failResets(int count, int skip) {
  const MutexLock lock(mutex_);
  resetsToFail_ = count;
  resetsToSkip_ = skip;
}

void CardAgent::ignore(AgentCommand code, int count) {
  const MutexLock lock(mutex_);
  ignored_ = code;
  toIgnore_ = count;
}

bool CardAgent::isIgnored(AgentCommand code) {
  if (code != ignored_ || toIgnore_ == 0) return false;
  --toIgnore_;
  return true;
}

bool CardAgent::resetFails() {
  if (resetsToFail_ == 0) return false;
  if (resetsToSkip_ > 0) {
    --resetsToSkip_;
    return false;
  }
  --resetsToFail_;
  return true;
}

std::optional<Bytes> CardAgent::answer(const LinkAgent::Command& command) {
  Respond respond;
  {
    const MutexLock lock(mutex_);
    if (isIgnored(command.code)) return std::nullopt;
    switch (command.code) {
      case AgentCommand::kQueryAtrReset:
        askedForCard_ = true;
        changed_.notifyAll();
        return resetFails() ? Bytes() : atr_;
      case AgentCommand::kQueryAtr:
        return atr_;
      case AgentCommand::kNotifyCardReady:
        return std::nullopt;
      case AgentCommand::kQueryTransmit:
        break;
    }
    if (atr_.empty()) return Bytes();
    respond = respond_;
  }
  if (respond) return respond(command.apdu);
  Bytes response = command.apdu;
  response.push_back(0x90);
  response.push_back(0x00);
  return response;
}

}  // namespace zelta::test
