// A driver that sends any bytes on both pipes while cards come and go. Checks the agent: one right
// answer for each whole command, and an end of the connection for anything else. Shared by the
// fuzzer and by the test that plays its corpus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <thread>
#include <vector>

#include "agent/link/driver_connection.h"
#include "contract/wire.h"
#include "tests/doubles/agent/held_card.h"
#include "tests/doubles/agent/memory_pipe.h"
#include "tests/support/fuzz_input.h"

namespace zelta::test {

// The answers that the agent owes the driver for the bytes so far.
class ExpectedAnswers {
 public:
  enum class Next { kMore, kAnswer, kEnd };

  // Takes bytes that the driver sends at once. kAnswer: the driver must wait for `answer`.
  Next send(const Bytes& bytes, bool cardAnswers) {
    pending_.insert(pending_.end(), bytes.begin(), bytes.end());
    for (;;) {
      if (pending_.size() < kNumberSize) return Next::kMore;
      const std::uint32_t code = loadLittleEndian(pending_.data());
      if (code > static_cast<std::uint32_t>(AgentCommand::kNotifyCardReady)) return Next::kEnd;
      std::size_t size = kNumberSize;
      if (code == static_cast<std::uint32_t>(AgentCommand::kQueryTransmit)) {
        if (pending_.size() < 2 * kNumberSize) return Next::kMore;
        const std::uint32_t length = loadLittleEndian(pending_.data() + kNumberSize);
        if (length == 0 || length > agent::kMaximumApduLength) return Next::kEnd;
        size = 2 * kNumberSize + length;
        if (pending_.size() < size) return Next::kMore;
      }
      const Bytes command = take(size);
      if (code == static_cast<std::uint32_t>(AgentCommand::kNotifyCardReady)) continue;
      if (!pending_.empty()) return Next::kEnd;  // the answer is given up
      setAnswer(command, cardAnswers);
      return Next::kAnswer;
    }
  }

  // The answer with its length.
  const Bytes& answer() const { return answer_; }
  bool givesAtr() const { return givesAtr_; }

 private:
  Bytes take(std::size_t size) {
    const auto end = pending_.begin() + static_cast<std::ptrdiff_t>(size);
    Bytes taken(pending_.begin(), end);
    pending_.erase(pending_.begin(), end);
    return taken;
  }

  void setAnswer(const Bytes& command, bool cardAnswers) {
    givesAtr_ = cardAnswers && command.size() == kNumberSize;
    Bytes content;
    if (givesAtr_) {
      content = heldAtr();
    } else if (cardAnswers) {
      content.assign(command.begin() + 2 * kNumberSize, command.end());
    }
    answer_ = numberBytes(static_cast<std::uint32_t>(content.size()));
    answer_.insert(answer_.end(), content.begin(), content.end());
  }

  Bytes pending_;
  Bytes answer_;
  bool givesAtr_ = false;
};

class HostileDriver {
 public:
  HostileDriver(const std::uint8_t* data, std::size_t size) : input_(data, size) {
    slot_.start();
    threads_.start();
    thread_ = std::thread([this] { connection_.serve(); });
    events_.takeWrites(kSessionWrites);  // now the connection notices the card's moves
  }
  ~HostileDriver() {
    connection_.stop();
    if (thread_.joinable()) thread_.join();
    threads_.stop();
    slot_.stop();
    checkEvents();
  }
  HostileDriver(const HostileDriver&) = delete;
  HostileDriver& operator=(const HostileDriver&) = delete;

  void play() {
    bool open = true;
    while (open && !input_.atEnd()) open = step();
  }

 private:
  // Answers a command with the command.
  class EchoCard final : public HeldCard {
   public:
    Bytes transmit(const Bytes& command) override {
      return HeldCard::transmit(command).empty() ? Bytes() : command;
    }
  };

  static constexpr std::chrono::milliseconds kNever{600000};
  static constexpr std::size_t kSessionWrites = 3;
  static constexpr int kMostLongCommands = 4;

  static void fail(const char* problem) { require(false, problem); }

  // False once the connection has ended.
  bool step() {
    switch (input_.byte() % 10) {
      case 0:
        events_.holdWrites();
        return true;
      case 1:
        events_.letWrites();
        return true;
      case 2:
        cardIn_ = !cardIn_;
        require((cardIn_ ? slot_.insert() : slot_.remove()).empty(), "the card moves");
        return true;
      case 3:
        mute_ = !mute_;
        card_.setMute(mute_);
        return true;
      case 4:  // no driver writes to it
        events_.letWrites();
        events_.give({input_.byte()});
        return expectEnd();
      case 5:
        (input_.byte() % 2 == 0 ? events_ : commands_).cancel();
        return expectEnd();
      case 6:
        return send(numberBytes(input_.byte() % 4));
      case 7: {
        const Bytes apdu = input_.bytes(input_.byte());
        Bytes command = numberBytes(static_cast<std::uint32_t>(AgentCommand::kQueryTransmit));
        const Bytes length = numberBytes(static_cast<std::uint32_t>(apdu.size()));
        command.insert(command.end(), length.begin(), length.end());
        command.insert(command.end(), apdu.begin(), apdu.end());
        return send(command);
      }
      case 8: {  // a long one, up to more than there may be
        if (++longCommands_ > kMostLongCommands) return true;
        Bytes command = numberBytes(static_cast<std::uint32_t>(AgentCommand::kQueryTransmit));
        const std::uint32_t length = agent::kMaximumApduLength + 2 - input_.byte() % 4;
        const Bytes field = numberBytes(length);
        command.insert(command.end(), field.begin(), field.end());
        command.resize(command.size() + length, input_.byte());
        return send(command);
      }
      default:
        return send(input_.bytes(input_.byte()));
    }
  }

  bool send(const Bytes& bytes) {
    const ExpectedAnswers::Next next = expected_.send(bytes, cardIn_ && !mute_);
    commands_.give(bytes);
    if (next == ExpectedAnswers::Next::kEnd) return expectEnd();
    if (next == ExpectedAnswers::Next::kAnswer) {
      ++answers_;
      const std::vector<Bytes> written = commands_.takeWrites(answers_);
      require(written.size() == answers_, "a command has one answer");
      require(written.back() == expected_.answer(), "the answer is the card's, with its length");
      learned_ = learned_ || expected_.givesAtr();
    }
    return true;
  }

  // Expects that the connection ends by itself, with no answer that was not due.
  bool expectEnd() {
    thread_.join();
    require(commands_.writes() == answers_, "what is no command has no answer");
    return false;
  }

  // Expects the session id, each field in its own write, and then alternating insertions and
  // removals. A removal comes first only if the driver knows the card by its ATR.
  void checkEvents() {
    const std::vector<Bytes> written = events_.takeWrites(0);
    for (std::size_t i = kSessionWrites; i < written.size(); ++i) {
      require(written[i] == numberBytes(0) || written[i] == numberBytes(1), "an event is a number");
      require(i == kSessionWrites || written[i] != written[i - 1], "events come by turns");
      require(i != kSessionWrites || written[i] == numberBytes(1) || learned_,
              "a card that the driver never knew is not reported gone");
    }
  }

  FuzzInput input_;
  agent::Log log_{agent::Severity::kDebug, [](agent::Severity, const std::string&) {}};
  EchoCard card_;
  bool cardIn_ = true;
  bool mute_ = false;
  agent::CardSlot slot_{card_, [this] { threads_.cardDeparted(); }, fail};
  agent::CommandThreads threads_{slot_, kNever, fail};
  MemoryPipe commands_;
  MemoryPipe events_;
  agent::DriverConnection connection_{
      commands_, events_, slot_, threads_, {{"id", kNever, kNever}, kNever, kNever},
      [] {},     fail,    log_};
  std::thread thread_;
  ExpectedAnswers expected_;
  std::size_t answers_ = 0;
  bool learned_ = false;  // the ATR of some card
  int longCommands_ = 0;
};

// Each step is a byte and its arguments.
inline void playHostileDriver(const std::uint8_t* data, std::size_t size) {
  HostileDriver(data, size).play();
}

}  // namespace zelta::test
