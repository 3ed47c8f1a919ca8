// A card lent to the agent at the other end of one line, until the line ends.
//
// `CommandThreads` answer its commands as they answer a driver's: a card that hangs does not keep
// the line from being read for longer than a command's limit.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "agent/card/card_slot.h"
#include "agent/link/command.h"
#include "agent/link/command_threads.h"
#include "agent/program/log.h"
#include "agent/remote/frame_channel.h"

namespace zelta::agent {

class LentCard final : private CommandStream, private CardSlot::Observer {
 public:
  struct Settings {
    LineTimes times;
    // How long the card may take for a command.
    std::chrono::milliseconds answerLimit;
    // Called on the thread that answers when the card has not been done in time; may be empty.
    std::function<void()> onLate{};
  };
  // Called when the other end has said hello.
  using OnGreeted = std::function<void(const Hello& peer, std::chrono::microseconds roundTrip)>;

  // Arguments passed by reference must outlive this object. `onGreeted` is called from `serve`.
  LentCard(Line& line, CardSlot& slot, CommandThreads& threads, const Settings& settings,
           OnGreeted onGreeted, Log& log);
  LentCard(const LentCard&) = delete;
  LentCard& operator=(const LentCard&) = delete;

  // Blocks until the line ends or `stop`.
  void serve();
  // Says bye and ends `serve`, now or as soon as it is called, whatever the card does. Any thread.
  void stop();

  // After `serve`.
  LineEnd end() const { return channel_.end(); }
  std::string describeEnd() const { return channel_.describeEnd(); }

 private:
  std::optional<Command> read() override;
  bool answer(const Command& command, const Outcome& outcome) override;
  void observing(CardId card) override;
  void cardArrived(CardId card) override;
  void cardDeparted() override;

  Line& line_;
  CardSlot& slot_;
  CommandThreads& threads_;
  const Settings settings_;
  const OnGreeted onGreeted_;
  Log& log_;
  FrameChannel channel_;
  std::atomic<bool> greeted_{false};
  std::uint32_t number_ = 0;  // of the last request read; for the leader only
};

}  // namespace zelta::agent
