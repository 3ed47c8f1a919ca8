// The agent: keeps the card and serves the driver of one reader, over any number of connections.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "agent/card/card_slot.h"
#include "agent/link/command_threads.h"
#include "agent/link/connector.h"
#include "agent/link/driver_connection.h"
#include "agent/link/pipe_client_port.h"
#include "agent/program/failure.h"
#include "agent/program/log.h"
#include "agent/program/service.h"
#include "agent/trace/trace_record.h"
#include "contract/bytes.h"
#include "contract/wire.h"
#include "platform/sync/sync.h"

namespace zelta::agent {

// Time limits.
struct Timing {
  // How long the driver waits for an answer, and how long the agent waits for the card: half a
  // second is left for the way there and back. Also how long a pipe may stay full.
  std::chrono::milliseconds driverLimit = kQueryTime;
  std::chrono::milliseconds answerLimit = kAnswerTime;
  std::chrono::milliseconds grace{500};
  std::chrono::milliseconds firstRetry{1};
  std::chrono::milliseconds longestRetry{1000};
  std::chrono::milliseconds hold{10};
};

class Agent final : public Service {
 public:
  struct Settings {
    std::uint32_t reader = 0;
    std::string sessionId;
    Timing timing;
    // Called on a thread of the agent's when the driver accepts a connection or is lost; may be
    // empty.
    std::function<void(bool connected)> onConnection;
    // Called on a thread that ends by an exception. Stop the agent then: it can no longer serve.
    OnFailure onFailure;
    // Told of what happens between the driver and the card; null for nobody. Outlives the agent.
    TraceSink* trace = nullptr;
  };

  // Arguments passed by reference must outlive this object.
  Agent(PipeClientPort& port, CardBackend& backend, Settings settings, Log& log);
  // Ends what `run` left running if it threw.
  ~Agent() override;

  // Starts the card; throws what the back end throws.
  void start();
  // After `start`, once.
  void run() override;
  void stop() override;

  // Any thread, between `start` and the end of `run`.
  std::string insertCard() override;
  std::string removeCard() override;
  Status status() const override;

 private:
  // Makes a connection known as the one being served, for a scope.
  class Serving;

  void serve(const PipePair& pipes);
  // A command thread has ended.
  void fail(const char* problem);
  bool stopping() const;
  void setConnected(bool connected);
  void noteLate(const Command& command);
  void tell(const TraceRecord& record) const;

  PipeClientPort& port_;
  CardBackend& backend_;
  const Settings settings_;
  Log& log_;
  CardSlot slot_;
  CommandThreads threads_;
  Connector connector_;
  std::atomic<std::uint64_t> timeouts_{0};
  std::atomic<std::uint64_t> connections_{0};
  mutable platform::Mutex mutex_;
  bool stopping_ ZELTA_GUARDED_BY(mutex_) = false;
  bool connected_ ZELTA_GUARDED_BY(mutex_) = false;
  DriverConnection* connection_ ZELTA_GUARDED_BY(mutex_) = nullptr;  // the one being served
};

}  // namespace zelta::agent
