#include "tests/doubles/agent/card_agent.h"

#include <algorithm>
#include <utility>

#include "tests/support/system.h"

namespace zelta::test {

using platform::MutexLock;

Bytes CardAgent::responseTo(const Bytes& apdu) {
  Bytes response = apdu;
  response.push_back(0x90);
  response.push_back(0x00);
  return response;
}

bool CardAgent::connectSilently() {
  die();
  // The driver accepts the command pipe's client first.
  if constexpr (!kPipesListenAfterDisconnect) {
    if (!command_.connectWhenListening(commandPipeName(readerIndex_))) return false;
  }
  if (!events_.connectWhenListening(eventPipeName(readerIndex_))) return false;
  return command_.connected() || command_.connectWhenListening(commandPipeName(readerIndex_));
}

bool CardAgent::connect(Answer answer) {
  if (!connectSilently()) return false;
  thread_ = std::thread([this, answer = std::move(answer)] { serve(answer); });
  return true;
}

bool CardAgent::connectUnasked() {
  return connect([this](const Command& command) { return answer(command); });
}

bool CardAgent::connect() {
  die();
  {
    const MutexLock lock(mutex_);
    resetsAsked_ = 0;
  }
  if (!connectUnasked()) return false;
  MutexLock lock(mutex_);
  return came_.waitFor(lock, PipeClient::kLimit,
                       [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return resetsAsked_ > 0; });
}

// The thread ends because the driver drops both pipes when the event pipe has gone.
void CardAgent::die() {
  events_.close();
  if (thread_.joinable()) thread_.join();
  command_.close();
}

bool CardAgent::isCardIn() {
  const MutexLock lock(mutex_);
  return !atr_.empty();
}

bool CardAgent::remove() {
  setAtr({});
  return sendEvent(AgentEvent::kCardRemoved);
}

void CardAgent::setAtr(Bytes atr) {
  const MutexLock lock(mutex_);
  atr_ = std::move(atr);
}

void CardAgent::respond(Respond respond) {
  const MutexLock lock(mutex_);
  respond_ = std::move(respond);
}

bool CardAgent::sendSessionLogId(const std::string& id) {
  return sendEvent(AgentEvent::kSessionLogId) &&
         events_.writeNumber(static_cast<std::uint32_t>(id.size())) &&
         events_.write(id.data(), id.size());
}

int CardAgent::commands(AgentCommand code) {
  const MutexLock lock(mutex_);
  return static_cast<int>(std::count(seen_.begin(), seen_.end(), code));
}

bool CardAgent::waitForCommands(AgentCommand code, int count) {
  MutexLock lock(mutex_);
  return came_.waitFor(lock, PipeClient::kLimit, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return std::count(seen_.begin(), seen_.end(), code) >= count;
  });
}

void CardAgent::serve(const Answer& answer) {
  while (const std::optional<Command> command = readCommand()) {
    const std::optional<Bytes> payload = answer(*command);
    if (command->code == AgentCommand::kNotifyCardReady || !payload.has_value()) continue;
    if (!writePayload(*payload)) return;
  }
}

std::optional<CardAgent::Command> CardAgent::readCommand() {
  const std::optional<std::uint32_t> code = command_.readNumber();
  if (!code.has_value()) return std::nullopt;
  Command command{static_cast<AgentCommand>(*code), {}};
  if (command.code == AgentCommand::kQueryTransmit) {
    const std::optional<std::uint32_t> size = command_.readNumber();
    if (!size.has_value()) return std::nullopt;
    command.apdu = command_.read(*size);
    if (command.apdu.size() != *size) return std::nullopt;
  }
  const MutexLock lock(mutex_);
  seen_.push_back(command.code);
  came_.notifyAll();
  return command;
}

bool CardAgent::writePayload(const Bytes& bytes) {
  return command_.writeNumber(static_cast<std::uint32_t>(bytes.size())) &&
         (bytes.empty() || command_.write(bytes));
}

std::optional<Bytes> CardAgent::answer(const Command& command) {
  Respond respond;
  {
    const MutexLock lock(mutex_);
    switch (command.code) {
      case AgentCommand::kQueryAtrReset:
        ++resetsAsked_;
        came_.notifyAll();
        return atr_;
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
  return respond ? respond(command.apdu) : responseTo(command.apdu);
}

}  // namespace zelta::test
