// A command of the driver's for the card, its outcome, and where commands come from.
#pragma once

#include <optional>

#include "agent/link/pipe_client_port.h"
#include "agent/link/report_rule.h"
#include "platform/process/wipe.h"

namespace zelta::agent {

struct Command {
  enum class Kind { kAtrWithReset, kAtr, kTransmit };

  Kind kind = Kind::kAtr;
  platform::SecretBytes apdu;  // of kTransmit
  // When the agent answers for a card that is not done, and when the driver gives up.
  SteadyClock::time_point cardLimit;
  SteadyClock::time_point driverLimit;
};

struct Outcome {
  enum class Result {
    kAnswered,  // `data` is not empty
    kNoAnswer,  // no card, pulled meanwhile, or mute
    kLate,      // not done in time
  };

  Result result = Result::kNoAnswer;
  platform::SecretBytes data{};
  CardId card = kNoCard;  // the one that answered
};

// Used by one thread at a time, not always the same one.
class CommandStream {
 public:
  // Blocks until the next command for the card is there. None at the end of the stream.
  virtual std::optional<Command> read() = 0;
  // Answers the command that was read last. False at the end of the stream.
  [[nodiscard]] virtual bool answer(const Command& command, const Outcome& outcome) = 0;

 protected:
  ~CommandStream() = default;
};

}  // namespace zelta::agent
