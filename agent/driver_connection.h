// Serves the driver on one connected pair of pipes until it is lost.
//
// Answers each command before it reads the next one, within the time that the driver waits. The
// stream cannot be resynchronised, so a command that is not understood, a length that cannot be and
// a command that stops half-way end the connection.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>

#include "agent/card_slot.h"
#include "agent/event_reporter.h"
#include "agent/log.h"
#include "agent/pipe_client_port.h"

namespace zelta::agent {

// The longest command APDU that is taken, in bytes: an extended one (4 header bytes, 3 length
// bytes, 65,535 of data, 2 of expected length) fits with what callers may add.
inline constexpr std::uint32_t kMaximumApduLength = 65548;

class DriverConnection {
 public:
  struct Settings {
    EventReporter::Settings events;
    // How long a command may take from its first bytes on; the driver gives up after 5 seconds.
    std::chrono::milliseconds answerLimit;
  };

  // Everything passed by reference outlives the connection. `onAlive` is called once, on a thread
  // of the connection's, when the driver is known to have accepted it: it has sent a command or
  // taken the session id.
  DriverConnection(PipeConnection& commands, PipeConnection& events, CardSlot& slot,
                   const Settings& settings, std::function<void()> onAlive, Log& log);
  DriverConnection(const DriverConnection&) = delete;
  DriverConnection& operator=(const DriverConnection&) = delete;

  // Blocks until the driver is gone, the stream is lost or `stop`.
  void serve();
  // Ends `serve`, now or as soon as it is called. Any thread.
  void stop();
  // Whether the driver has been seen to accept the connection. Any thread.
  bool alive() const { return alive_; }

 private:
  using Deadline = SteadyClock::time_point;

  // Each is false where the connection is to end.
  bool serveOne();
  bool dispatch(std::uint32_t code, Deadline deadline);
  bool answerAtr(CardSlot::Operation operation, Deadline deadline);
  bool answerTransmit(Deadline deadline);
  bool readApdu(Bytes* apdu, Deadline deadline);
  bool readPart(void* data, std::uint32_t size, Deadline deadline);
  // Any answer but the ATR.
  bool writeAnswer(const Bytes& answer);
  bool writeFields(const Bytes& answer);

  void seenAlive();

  PipeConnection& commands_;
  PipeConnection& events_;
  CardSlot& slot_;
  const Settings settings_;
  const std::function<void()> onAlive_;
  Log& log_;
  std::atomic<bool> alive_{false};
  EventReporter reporter_;
};

}  // namespace zelta::agent
