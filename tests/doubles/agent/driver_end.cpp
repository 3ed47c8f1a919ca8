#include "tests/doubles/agent/driver_end.h"

#include <array>
#include <stdexcept>

#include "contract/bytes.h"
#include "contract/wire.h"
#include "platform/process/error.h"

namespace zelta::test {

namespace {

// The system's numbers.
constexpr std::uint32_t kDuplex = 0x00000003;
constexpr std::uint32_t kFirstInstance = 0x00080000;
constexpr std::uint32_t kBytesBlocking = 0;

// Like the driver's, except for the access rights: one instance without a buffer.
platform::PipeHandleValue createPipe(platform::PipeApi& pipes, const std::string& name) {
  platform::PipeArguments arguments;
  arguments.openMode = kDuplex | kFirstInstance;
  arguments.pipeMode = kBytesBlocking;
  arguments.maxInstances = 1;
  const platform::PipeHandleValue pipe = pipes.create(name, arguments);
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
  while (!pipes_.connect(pipe)) {
    const std::uint32_t code = platform::lastError();
    if (code == platform::error::kPipeConnected) return;
    if (code != platform::error::kNoData) {
      throw std::runtime_error("connect failed: " + std::to_string(code));
    }
    pipes_.disconnect(pipe);  // a client that came and went bars the pipe
  }
}

void DriverEnd::accept() {
  connect(commands_);
  connect(events_);
}

std::string DriverEnd::acceptSession() {
  for (;;) {
    accept();
    if (const std::optional<std::string> id = takeSessionId()) return *id;
    disconnect();
  }
}

void DriverEnd::disconnect() {
  pipes_.disconnect(events_);
  pipes_.disconnect(commands_);
}

void DriverEnd::disconnectEvents() { pipes_.disconnect(events_); }

bool DriverEnd::writeToEventPipe(const Bytes& bytes) {
  return pipes_.write(events_, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

std::optional<std::uint32_t> DriverEnd::readNumber(platform::PipeHandleValue pipe) {
  std::array<std::uint8_t, 4> bytes{};
  if (!pipes_.read(pipe, bytes.data(), bytes.size())) return std::nullopt;
  return loadLittleEndian(bytes.data());
}

std::optional<std::uint32_t> DriverEnd::readEvent() { return readNumber(events_); }

std::optional<std::uint8_t> DriverEnd::readEventByte() {
  std::uint8_t byte = 0;
  if (!pipes_.read(events_, &byte, sizeof byte)) return std::nullopt;
  return byte;
}

std::optional<std::string> DriverEnd::takeSessionId() {
  const std::optional<std::uint32_t> code = readEvent();
  if (!code) return std::nullopt;
  if (code != event(AgentEvent::kSessionLogId)) throw std::runtime_error("no session id");
  const std::optional<std::uint32_t> length = readNumber(events_);
  if (!length) return std::nullopt;
  std::string id(*length, '\0');
  if (!pipes_.read(events_, id.data(), *length)) return std::nullopt;
  return id;
}

std::string DriverEnd::readSessionId() {
  const std::optional<std::string> id = takeSessionId();
  if (!id) throw std::runtime_error("the agent is gone");
  return *id;
}

bool DriverEnd::sendNumber(std::uint32_t number) {
  const auto bytes = toLittleEndian(number);
  return pipes_.write(commands_, bytes.data(), bytes.size());
}

bool DriverEnd::sendBytes(const Bytes& bytes) {
  return pipes_.write(commands_, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

std::optional<Bytes> DriverEnd::readAnswer() {
  pipes_.flush(commands_);
  return takeAnswer();
}

std::optional<Bytes> DriverEnd::takeAnswer() {
  const std::optional<std::uint32_t> length = readNumber(commands_);
  if (!length) return std::nullopt;
  Bytes answer(*length);
  if (*length != 0 && !pipes_.read(commands_, answer.data(), *length)) return std::nullopt;
  return answer;
}

std::optional<std::uint32_t> DriverEnd::readAnswerLength() { return readNumber(commands_); }

std::optional<Bytes> DriverEnd::queryAtr(AgentCommand command) {
  if (!sendNumber(static_cast<std::uint32_t>(command))) return std::nullopt;
  return readAnswer();
}

bool DriverEnd::sendTransmit(const Bytes& apdu) {
  return sendNumber(static_cast<std::uint32_t>(AgentCommand::kQueryTransmit)) &&
         sendNumber(static_cast<std::uint32_t>(apdu.size())) && sendBytes(apdu);
}

std::optional<Bytes> DriverEnd::transmit(const Bytes& apdu) {
  if (!sendTransmit(apdu)) return std::nullopt;
  return readAnswer();
}

bool DriverEnd::notifyReady() {
  return sendNumber(static_cast<std::uint32_t>(AgentCommand::kNotifyCardReady));
}

bool DriverEnd::waitForDrop() {
  std::uint8_t unexpected = 0;
  return !pipes_.read(commands_, &unexpected, sizeof unexpected);
}

Bytes DriverEnd::takeRest() {
  pipes_.flush(commands_);
  Bytes rest;
  for (std::uint8_t byte = 0; pipes_.read(commands_, &byte, sizeof byte);) rest.push_back(byte);
  return rest;
}

}  // namespace zelta::test
