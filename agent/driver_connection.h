// Serves the driver on one connected pair of pipes until it is lost.
//
// Answers each command before it reads the next one, within the time that the driver waits. The
// stream cannot be resynchronised, so a command that is not understood, a length that cannot be, a
// command that stops half-way and an answer that the driver has not taken by the end of its time
// end the connection.
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
    // From a command's first bytes on: how long the card may take to answer, and when the driver
    // gives up.
    std::chrono::milliseconds answerLimit;
    std::chrono::milliseconds driverLimit;
  };

  // Everything passed by reference outlives the connection. `onAlive` is called once, on a thread
  // of the connection's, when the driver is known to have accepted it: it has sent a command or
  // taken the session id. `onFailure` learns of a thread of the connection's that has ended by an
  // exception.
  DriverConnection(PipeConnection& commands, PipeConnection& events, CardSlot& slot,
                   const Settings& settings, std::function<void()> onAlive, OnFailure onFailure,
                   Log& log);
  DriverConnection(const DriverConnection&) = delete;
  DriverConnection& operator=(const DriverConnection&) = delete;

  // Blocks until the driver is gone, the stream is lost or `stop`. May throw for lack of memory or
  // of threads; the slot is not observed any more then.
  void serve();
  // Ends `serve`, now or as soon as it is called. Any thread.
  void stop();
  // Whether the driver has been seen to accept the connection. Any thread.
  bool alive() const { return alive_; }

 private:
  using Deadline = SteadyClock::time_point;

  // Of the command that is being answered.
  struct Limits {
    Deadline card;
    Deadline driver;
  };

  // Each is false where the connection is to end.
  bool serveOne();
  bool dispatch(std::uint32_t code, const Limits& limits);
  bool answerAtr(CardSlot::Operation operation, const Limits& limits);
  bool answerTransmit(const Limits& limits);
  bool readApdu(Bytes* apdu, Deadline deadline);
  bool readPart(void* data, std::uint32_t size, Deadline deadline);
  // Any answer but the ATR.
  bool writeAnswer(const Bytes& answer, Deadline deadline);
  bool writeFields(const Bytes& answer, Deadline deadline);
  bool writeField(const void* data, std::uint32_t size, Deadline deadline);

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
