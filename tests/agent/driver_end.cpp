#include "tests/agent/driver_end.h"

#include <array>
#include <stdexcept>

#include "platform/error.h"

namespace zelta::test {

using agent::Bytes;

namespace {

platform::PipeHandleValue createPipe(platform::PipeApi& pipes, const std::string& name) {
  const platform::PipeHandleValue pipe = pipes.create(name, {});
  if (pipe == platform::invalidPipe()) throw std::runtime_error("cannot create " + name);
  return pipe;
}

}  // namespace

DriverEnd::DriverEnd(std::uint32_t reader)
    : pipes_(platform::systemPipes()),
      commands_(createPipe(pipes_, commandPipeName(reader))),
      events_(createPipe(pipes_, eventPipeName(reader))) {}

DriverEnd::~DriverEnd() {
  pipes_.close(events_);
  pipes_.close(commands_);
}

void DriverEnd::connect(platform::PipeHandleValue pipe) {
  if (pipes_.connect(pipe) || platform::lastError() == platform::error::kPipeConnected) return;
  throw std::runtime_error("connect failed: " + std::to_string(platform::lastError()));
}

void DriverEnd::accept() {
  connect(commands_);
  connect(events_);
}

std::string DriverEnd::acceptSession() {
  accept();
  return readSessionId();
}

void DriverEnd::disconnect() {
  pipes_.disconnect(events_);
  pipes_.disconnect(commands_);
}

void DriverEnd::acceptEvents() { connect(events_); }

void DriverEnd::disconnectEvents() { pipes_.disconnect(events_); }

bool DriverEnd::writeToEventPipe(const Bytes& bytes) {
  return pipes_.write(events_, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

std::optional<std::uint32_t> DriverEnd::readNumber(platform::PipeHandleValue pipe) {
  std::array<std::uint8_t, 4> bytes{};
  if (!pipes_.read(pipe, bytes.data(), bytes.size())) return std::nullopt;
  return decodeNumber(bytes);
}

std::optional<std::uint32_t> DriverEnd::readEvent() { return readNumber(events_); }

std::string DriverEnd::readSessionId() {
  if (readEvent() != event(AgentEvent::SessionLogId)) throw std::runtime_error("no session id");
  const std::optional<std::uint32_t> length = readNumber(events_);
  if (!length) throw std::runtime_error("no length of the session id");
  std::string id(*length, '\0');
  if (!pipes_.read(events_, id.data(), *length)) throw std::runtime_error("session id cut off");
  return id;
}

bool DriverEnd::sendNumber(std::uint32_t number) {
  const auto bytes = encodeNumber(number);
  return pipes_.write(commands_, bytes.data(), bytes.size());
}

bool DriverEnd::sendBytes(const Bytes& bytes) {
  return pipes_.write(commands_, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

std::optional<Bytes> DriverEnd::readAnswer() {
  pipes_.flush(commands_);
  const std::optional<std::uint32_t> length = readNumber(commands_);
  if (!length) return std::nullopt;
  Bytes answer(*length);
  if (*length != 0 && !pipes_.read(commands_, answer.data(), *length)) return std::nullopt;
  return answer;
}

std::optional<Bytes> DriverEnd::queryAtr(AgentCommand command) {
  if (!sendNumber(static_cast<std::uint32_t>(command))) return std::nullopt;
  return readAnswer();
}

bool DriverEnd::sendTransmit(const Bytes& apdu) {
  return sendNumber(static_cast<std::uint32_t>(AgentCommand::QueryTransmit)) &&
         sendNumber(static_cast<std::uint32_t>(apdu.size())) && sendBytes(apdu);
}

std::optional<Bytes> DriverEnd::transmit(const Bytes& apdu) {
  if (!sendTransmit(apdu)) return std::nullopt;
  return readAnswer();
}

bool DriverEnd::notifyReady() {
  return sendNumber(static_cast<std::uint32_t>(AgentCommand::NotifyCardReady));
}

bool DriverEnd::waitForDrop() {
  std::uint8_t unexpected = 0;
  return !pipes_.read(commands_, &unexpected, sizeof unexpected);
}

}  // namespace zelta::test
