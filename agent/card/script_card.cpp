#include "agent/card/script_card.h"

#include <sstream>
#include <utility>

#include "agent/card/card_file.h"
#include "agent/program/failure.h"
#include "agent/program/wrong_configuration.h"
#include "contract/bytes.h"

namespace zelta::agent {

ScriptCard::ScriptCard(Script script, bool cardIn) : script_(std::move(script)), in_(cardIn) {}

ScriptCard::~ScriptCard() { stop(); }

void ScriptCard::start(CardListener& listener) {
  listener_ = &listener;
  {
    const platform::MutexLock lock(mutex_);
    const auto now = Clock::now();
    for (const Script::Timed& timed : script_.timed) due_.emplace(now + timed.at, timed.action);
    if (in_) listener.cardInserted();
  }
  timer_ = std::thread([this] {
    guarded([this](const char* problem) { listener_->cardFailed(problem); },
            [this] { runTimed(); });
  });
}

void ScriptCard::stop() {
  interrupt();
  if (timer_.joinable()) timer_.join();
}

void ScriptCard::interrupt() {
  const platform::MutexLock lock(mutex_);
  interrupted_ = true;
  changed_.notifyAll();
  removed_.notifyAll();
}

Bytes ScriptCard::reset() {
  trigger(On::kReset, {});
  return respond(script_.atr, {});
}

Bytes ScriptCard::atr() {
  trigger(On::kAtr, {});
  return respond(script_.atr, {});
}

Bytes ScriptCard::transmit(const Bytes& command) {
  trigger(On::kCommand, command);
  return respond(script_.responseTo(command), command);
}

void ScriptCard::ready() { trigger(On::kReady, {}); }

void ScriptCard::trigger(On on, const Bytes& command) {
  const platform::MutexLock lock(mutex_);
  const auto now = Clock::now();
  for (const Script::Trigger& trigger : script_.triggers) {
    if (trigger.on != on) continue;
    if (on == On::kCommand && !trigger.pattern.matches(command)) continue;
    due_.emplace(now + trigger.delay, trigger.action);
    changed_.notifyAll();
  }
}

Bytes ScriptCard::respond(const ScriptResponse& response, const Bytes& command) {
  platform::MutexLock lock(mutex_);
  if (!in_ || interrupted_) return {};
  if (response.delay == std::chrono::milliseconds(0)) return response.to(command);
  const std::uint64_t removals = removals_;
  const bool gone = removed_.waitFor(lock, response.delay, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return removals_ != removals || interrupted_;
  });
  return gone ? Bytes() : response.to(command);
}

void ScriptCard::runTimed() {
  platform::MutexLock lock(mutex_);
  const auto first = [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return due_.empty() ? Clock::time_point::max() : due_.begin()->first;
  };
  while (!interrupted_) {
    const Clock::time_point next = first();
    const auto earlier = [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
      return interrupted_ || first() < next;
    };
    if (due_.empty()) {
      changed_.wait(lock, earlier);
      continue;
    }
    if (changed_.waitFor(lock, next - Clock::now(), earlier)) continue;
    const CardAction action = due_.begin()->second;
    due_.erase(due_.begin());
    lock.unlock();
    act(action);  // a script may insert a card that is in; nothing happens then
    lock.lock();
  }
}

std::string ScriptCard::insert() { return act(CardAction::kInsert); }

std::string ScriptCard::remove() { return act(CardAction::kRemove); }

std::string ScriptCard::act(CardAction action) {
  const bool wanted = action == CardAction::kInsert;
  const platform::MutexLock acting(acting_);
  {
    const platform::MutexLock lock(mutex_);
    if (in_ == wanted) return wanted ? "a card is in already" : "no card is in";
  }
  // The card answers by the time it is announced. Its removal is announced before it stops.
  if (!wanted) listener_->cardRemoved();
  {
    const platform::MutexLock lock(mutex_);
    in_ = wanted;
    if (!wanted) {
      ++removals_;
      removed_.notifyAll();
    }
  }
  if (wanted) listener_->cardInserted();
  return {};
}

std::unique_ptr<CardBackend> loadScriptCard(const std::string& file, std::optional<bool> cardIn) {
  std::ostringstream text;
  text << openCardFile(file).rdbuf();
  try {
    Script script = parseScript(text.str());
    const bool in = cardIn.value_or(script.cardIn);
    return std::make_unique<ScriptCard>(std::move(script), in);
  } catch (const ScriptError& error) {
    throw WrongConfiguration(file + ": " + error.what());
  }
}

}  // namespace zelta::agent
