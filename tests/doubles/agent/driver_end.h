// The driver's side of the wire, for tests: server ends of both pipes and the exchanges as the
// driver performs them, on the operating system's real pipes.
//
// One thread, except that `transmit` and `readEvent` may run at the same time. Calls block until
// the agent does what they wait for; if it does not, the test ends by its time-out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "contract/bytes.h"
#include "contract/wire.h"
#include "platform/pipe/pipe.h"

namespace zelta::test {

class DriverEnd {
 public:
  // Creates both pipes, so that the agent can connect. Throws if one is in use.
  explicit DriverEnd(std::uint32_t reader = 0);
  ~DriverEnd();
  DriverEnd(const DriverEnd&) = delete;
  DriverEnd& operator=(const DriverEnd&) = delete;

  // Waits for the agent on both pipes, command pipe first.
  void accept();
  // `accept`, and takes the session id. Drops an agent that has gone meanwhile and waits again, as
  // the driver does.
  std::string acceptSession();
  void disconnect();
  void disconnectEvents();

  // The next event's code; none if the agent is gone.
  std::optional<std::uint32_t> readEvent();
  // The next byte of the event pipe; none if the agent is gone.
  std::optional<std::uint8_t> readEventByte();
  // Throws if the agent is gone or sends something else.
  std::string readSessionId();

  // Each is none if the agent dropped the connection; an empty answer is one of length 0.
  std::optional<Bytes> queryAtr(AgentCommand command);
  std::optional<Bytes> transmit(const Bytes& apdu);
  // The two halves of `transmit`.
  bool sendTransmit(const Bytes& apdu);
  std::optional<Bytes> readAnswer();
  // Reads an answer without a flush; call after one.
  std::optional<Bytes> takeAnswer();
  // Reads only the beginning of an answer.
  std::optional<std::uint32_t> readAnswerLength();
  bool notifyReady();

  // No real driver does this.
  bool writeToEventPipe(const Bytes& bytes);

  bool sendNumber(std::uint32_t number);
  bool sendBytes(const Bytes& bytes);
  // Waits until the agent has read everything sent.
  bool flush() { return pipes_.flush(commands_); }
  // Waits until the agent has dropped the connection; false if it answered instead.
  bool waitForDrop();
  // The same, after a flush; returns the bytes that the agent wrote on the command pipe before.
  Bytes takeRest();

 private:
  void connect(platform::PipeHandleValue pipe);
  std::optional<std::uint32_t> readNumber(platform::PipeHandleValue pipe);
  // None if the agent is gone.
  std::optional<std::string> takeSessionId();

  platform::PipeApi& pipes_;
  platform::PipeHandleValue commands_;
  platform::PipeHandleValue events_;
};

// An event as `readEvent` gives it.
inline std::optional<std::uint32_t> event(AgentEvent code) {
  return static_cast<std::uint32_t>(code);
}

}  // namespace zelta::test
