#include "tests/doubles/agent/card_agent.h"

#include <algorithm>
#include <utility>

#include "tests/support/system.h"

namespace zelta::test {

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
  state_.lock()->resetsAsked = 0;
  if (!connectUnasked()) return false;
  return state_.lock().waitFor(PipeClient::kLimit,
                               [](const State& now) { return now.resetsAsked > 0; });
}

// The thread ends because the driver drops both pipes when the event pipe has gone.
void CardAgent::die() {
  events_.close();
  if (thread_.joinable()) thread_.join();
  command_.close();
}

bool CardAgent::remove() {
  setAtr({});
  return sendEvent(AgentEvent::kCardRemoved);
}

bool CardAgent::sendSessionLogId(const std::string& id) {
  return sendEvent(AgentEvent::kSessionLogId) &&
         events_.writeNumber(static_cast<std::uint32_t>(id.size())) &&
         events_.write(id.data(), id.size());
}

int CardAgent::commands(AgentCommand code) {
  const auto state = state_.lock();
  return static_cast<int>(std::count(state->seen.begin(), state->seen.end(), code));
}

bool CardAgent::waitForCommands(AgentCommand code, int count) {
  return state_.lock().waitFor(PipeClient::kLimit, [&](const State& now) {
    return std::count(now.seen.begin(), now.seen.end(), code) >= count;
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
  state_.lock()->seen.push_back(command.code);
  return command;
}

bool CardAgent::writePayload(const Bytes& bytes) {
  return command_.writeNumber(static_cast<std::uint32_t>(bytes.size())) &&
         (bytes.empty() || command_.write(bytes));
}

std::optional<Bytes> CardAgent::answer(const Command& command) {
  if (command.code == AgentCommand::kNotifyCardReady) return std::nullopt;
  Respond respond;
  {
    const auto state = state_.lock();
    if (command.code == AgentCommand::kQueryAtrReset) ++state->resetsAsked;
    if (command.code != AgentCommand::kQueryTransmit || state->atr.empty()) return state->atr;
    respond = state->respond;
  }
  return respond ? respond(command.apdu) : responseTo(command.apdu);
}

}  // namespace zelta::test
