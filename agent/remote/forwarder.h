// The agent at the card: lends its card to the agent at the driver, over any number of lines.
//
// A line that ends is dialed again, after growing waits if nobody answered. The program ends if
// waiting cannot help: ssh is missing, the agent is missing there, or the two do not understand
// each other.
#pragma once

#include <chrono>
#include <string>

#include "agent/card/card_slot.h"
#include "agent/link/command_threads.h"
#include "agent/link/connector.h"
#include "agent/program/failure.h"
#include "agent/program/log.h"
#include "agent/program/service.h"
#include "agent/remote/dialer.h"
#include "agent/remote/lent_card.h"
#include "contract/wire.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

class Forwarder final : public Service {
 public:
  struct Settings {
    std::string place;  // for people: the other machine
    std::uint32_t reader = 0;
    LentCard::Settings card{{}, kAnswerTime};
    std::chrono::milliseconds firstRetry{500};
    std::chrono::milliseconds longestRetry{30000};
    // Called on a thread that ends by an exception. Stop the forwarder then.
    OnFailure onFailure;
    TraceSink* trace = nullptr;  // not owned; may be null
  };

  // Arguments passed by reference must outlive this object.
  Forwarder(Dialer& dialer, CardBackend& backend, Settings settings, Log& log);
  // Ends what `run` left running if it threw.
  ~Forwarder() override;

  // Starts the card; throws what the back end throws.
  void start() { slot_.start(); }
  // After `start`, once. Throws std::runtime_error with a message for people if waiting cannot
  // help.
  void run() override;
  void stop() override;
  std::string insertCard() override;
  std::string removeCard() override;
  Status status() const override;

 private:
  // Lends the card once. Returns why the line has ended.
  std::string lend();
  // The reason, for people; throws if another line would end the same way.
  std::string judge(const LentCard& lent, int exitCode) const;
  // Blocks until a line ends.
  void serve(LentCard& lent);
  void noteGreeted(const Hello& peer, std::chrono::microseconds roundTrip);
  // False if no other line may follow.
  [[nodiscard]] bool waitForRetry(const std::string& why);
  bool stopping();

  Dialer& dialer_;
  const CardBackend& backend_;
  const Settings settings_;
  Log& log_;
  CardSlot slot_;
  CommandThreads threads_;
  Backoff backoff_;       // for `run` only
  bool greeted_ = false;  // this line; for `run` only
  std::atomic<bool> connected_{false};
  std::atomic<std::uint64_t> greetings_{0};
  std::atomic<std::uint64_t> timeouts_{0};
  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  bool stopping_ ZELTA_GUARDED_BY(mutex_) = false;
  LentCard* lent_ ZELTA_GUARDED_BY(mutex_) = nullptr;  // over the current line
};

}  // namespace zelta::agent
