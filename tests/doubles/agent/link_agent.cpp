#include "tests/doubles/agent/link_agent.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "contract/bytes.h"
#include "contract/wire.h"
#include "tests/support/system.h"

namespace zelta::test {

bool LinkAgent::connectSilently() {
  die();
  // The driver lets the command pipe's client in first.
  if constexpr (!kPipesListenAfterDisconnect) {
    if (!command_.connectWhenListening(commandPipeName(readerIndex_))) return false;
  }
  if (!events_.connectWhenListening(eventPipeName(readerIndex_))) return false;
  return command_.connected() || command_.connectWhenListening(commandPipeName(readerIndex_));
}

bool LinkAgent::connect(Answer answer) {
  if (!connectSilently()) return false;
  thread_ = std::thread([this, answer = std::move(answer)] { serve(answer); });
  return true;
}

// The thread ends because the driver drops both pipes when the event pipe has gone.
void LinkAgent::die() {
  events_.close();
  if (thread_.joinable()) thread_.join();
  command_.close();
}

bool LinkAgent::sendSessionLogId(const std::string& id) {
  return sendEvent(AgentEvent::kSessionLogId) &&
         events_.writeNumber(static_cast<std::uint32_t>(id.size())) &&
         events_.write(id.data(), id.size());
}

void LinkAgent::serve(const Answer& answer) {
  while (const std::optional<Command> command = readCommand()) {
    const std::optional<Bytes> payload = answer(*command);
    if (command->code == AgentCommand::kNotifyCardReady || !payload.has_value()) continue;
    if (!writePayload(*payload)) return;
  }
}

std::optional<LinkAgent::Command> LinkAgent::readCommand() {
  const std::optional<std::uint32_t> code = command_.readNumber();
  if (!code.has_value()) return std::nullopt;
  Command command{static_cast<AgentCommand>(*code), {}};
  if (command.code == AgentCommand::kQueryTransmit) {
    const std::optional<std::uint32_t> size = command_.readNumber();
    if (!size.has_value()) return std::nullopt;
    command.apdu = command_.read(*size);
    if (command.apdu.size() != *size) return std::nullopt;
  }
  const platform::MutexLock lock(mutex_);
  seen_.push_back(command.code);
  came_.notifyAll();
  return command;
}

bool LinkAgent::writePayload(const Bytes& bytes) {
  return command_.writeNumber(static_cast<std::uint32_t>(bytes.size())) &&
         (bytes.empty() || command_.write(bytes));
}

int LinkAgent::commands(AgentCommand code) {
  const platform::MutexLock lock(mutex_);
  return static_cast<int>(std::count(seen_.begin(), seen_.end(), code));
}

bool LinkAgent::waitForCommands(AgentCommand code, int count) {
  platform::MutexLock lock(mutex_);
  return came_.waitFor(lock, std::chrono::seconds(30), [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return std::count(seen_.begin(), seen_.end(), code) >= count;
  });
}

}  // namespace zelta::test
