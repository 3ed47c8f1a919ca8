// Serves the driver on one connected pair of pipes until it is lost.
//
// Each command is answered before the next is read, within the time that the driver waits. The
// stream cannot be resynchronised. The connection therefore ends if a command is not understood or
// stops half-way, if a length is not an APDU's, or if the driver has given an answer up or not
// taken it in time.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "agent/card/card_slot.h"
#include "agent/link/command.h"
#include "agent/link/command_threads.h"
#include "agent/link/event_reporter.h"
#include "agent/link/pipe_client_port.h"
#include "agent/program/log.h"
#include "contract/bytes.h"

namespace zelta::agent {

// The longest command APDU that is taken, in bytes: an extended one (4 header bytes, 3 length
// bytes, 65,535 of data, 2 of expected length) fits with what callers may add.
inline constexpr std::uint32_t kMaximumApduLength = 65548;

class DriverConnection final : private CommandStream {
 public:
  struct Settings {
    EventReporter::Settings events;
    // Counted from a command's first bytes: the card's time to answer, and when the driver gives
    // up.
    std::chrono::milliseconds answerLimit;
    std::chrono::milliseconds driverLimit;
    // Called when the agent answers a command for a card that is late; may be empty.
    std::function<void(const Command&)> onLate{};
  };

  // Arguments passed by reference must outlive this object. `onAlive` is called once, on a thread
  // of the connection's or of `threads`, when the driver is known to have accepted it: it has sent
  // a command or taken the session id. `onFailure` is called if a thread of the connection ends by
  // an exception.
  DriverConnection(PipeConnection& commands, PipeConnection& events, CardSlot& slot,
                   CommandThreads& threads, const Settings& settings, std::function<void()> onAlive,
                   OnFailure onFailure, Log& log);
  DriverConnection(const DriverConnection&) = delete;
  DriverConnection& operator=(const DriverConnection&) = delete;

  // Blocks until the driver is gone, the stream is lost or `stop`; `threads` answer the commands.
  // May throw for lack of threads; the slot is not observed any more then.
  void serve();
  // Ends `serve`, now or as soon as it is called, whatever the card does. Any thread.
  void stop();
  // Whether the driver has been seen to accept the connection. Any thread.
  bool alive() const { return alive_; }

 private:
  std::optional<Command> read() override;
  bool answer(const Command& command, const Outcome& outcome) override;

  // These return none or false if the connection must end.
  std::optional<std::uint32_t> readNumber(SteadyClock::time_point deadline);
  std::optional<platform::SecretBytes> readApdu(SteadyClock::time_point deadline);
  // A command's code; `command` gets its time limits.
  std::optional<std::uint32_t> beginCommand(Command& command);
  void passReady();
  [[nodiscard]] bool readField(void* data, std::uint32_t size, SteadyClock::time_point deadline);
  // Any answer but the ATR.
  [[nodiscard]] bool answerOtherwise(const Command& command, const Bytes& bytes);
  [[nodiscard]] bool write(const Command& command, const Bytes& bytes);
  // Logs why the connection ends; `timedOut` is the text for that.
  [[nodiscard]] bool check(IoResult result, const char* timedOut);

  // The command's name in the log.
  std::string describe(const Command& command) const;
  void seenAlive();

  PipeConnection& commands_;
  PipeConnection& events_;
  CardSlot& slot_;
  CommandThreads& threads_;
  const Settings settings_;
  const std::function<void()> onAlive_;
  Log& log_;
  std::atomic<bool> alive_{false};
  EventReporter reporter_;
};

}  // namespace zelta::agent
