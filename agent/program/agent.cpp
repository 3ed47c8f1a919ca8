#include "agent/program/agent.h"

#include <algorithm>
#include <utility>

#include "contract/wire.h"

namespace zelta::agent {

namespace {

constexpr std::size_t kHeaderSize = 4;  // of an APDU: what may be told of a command

Connector::Settings connectorSettings(const Agent::Settings& settings) {
  return {commandPipeName(settings.reader), eventPipeName(settings.reader),
          settings.timing.firstRetry, settings.timing.longestRetry, settings.timing.hold};
}

}  // namespace

Agent::Agent(PipeClientPort& port, CardBackend& backend, Settings settings, Log& log)
    : port_(port),
      backend_(backend),
      settings_(std::move(settings)),
      log_(log),
      slot_(
          backend, [this] { threads_.cardDeparted(); }, settings_.onFailure, settings_.trace),
      threads_(slot_, settings_.timing.answerLimit, [this](const char* problem) { fail(problem); }),
      connector_(port, connectorSettings(settings_), log) {}

Agent::~Agent() {
  threads_.stop();
  slot_.stop();
}

void Agent::start() { slot_.start(); }

void Agent::run() {
  threads_.start();
  while (!stopping()) {
    const PipePair pipes = connector_.attempt();
    if (pipes.commands != nullptr) serve(pipes);
  }
  threads_.stop();
  slot_.stop();
}

void Agent::fail(const char* problem) {
  if (settings_.onFailure) settings_.onFailure(problem);
  stop();
}

class Agent::Serving {
 public:
  Serving(Agent& agent, DriverConnection& connection) : agent_(agent) {
    const platform::MutexLock lock(agent_.mutex_);
    agent_.connection_ = &connection;
    // If stopped already, the connection ends at once.
    if (agent_.stopping_) connection.stop();
  }
  ~Serving() {
    const platform::MutexLock lock(agent_.mutex_);
    agent_.connection_ = nullptr;
  }
  Serving(const Serving&) = delete;
  Serving& operator=(const Serving&) = delete;

 private:
  Agent& agent_;
};

void Agent::serve(const PipePair& pipes) {
  const Timing& timing = settings_.timing;
  const DriverConnection::Settings settings{{settings_.sessionId, timing.grace, timing.driverLimit},
                                            timing.answerLimit,
                                            timing.driverLimit,
                                            [this](const Command& command) { noteLate(command); }};
  bool wasAlive = false;
  {
    DriverConnection connection(
        *pipes.commands, *pipes.events, slot_, threads_, settings, [this] { setConnected(true); },
        settings_.onFailure, log_);
    {
      const Serving serving(*this, connection);
      connection.serve();
    }
    wasAlive = connection.alive();
  }
  // Only now: no thread of the connection can report anything else any more.
  setConnected(false);
  if (!stopping()) connector_.connectionEnded(wasAlive);
}

void Agent::stop() {
  {
    const platform::MutexLock lock(mutex_);
    stopping_ = true;
    if (connection_ != nullptr) connection_->stop();
  }
  port_.cancel();
}

bool Agent::stopping() const {
  const platform::MutexLock lock(mutex_);
  return stopping_;
}

void Agent::setConnected(bool connected) {
  {
    const platform::MutexLock lock(mutex_);
    if (connected_ == connected) return;
    connected_ = connected;
  }
  if (connected) ++connections_;
  TraceRecord record;
  record.kind = connected ? TraceRecord::Kind::kConnect : TraceRecord::Kind::kDisconnect;
  tell(record);
  log_.info(connected ? "Connected to the driver" : "The driver is gone");
  if (settings_.onConnection) settings_.onConnection(connected);
}

void Agent::noteLate(const Command& command) {
  timeouts_.fetch_add(1, std::memory_order_relaxed);
  TraceRecord record;
  record.kind = TraceRecord::Kind::kLate;
  const std::size_t header = std::min(command.apdu.size(), kHeaderSize);
  record.command = Bytes(command.apdu.get().data(), command.apdu.get().data() + header);
  tell(record);
}

void Agent::tell(const TraceRecord& record) const {
  if (settings_.trace != nullptr && settings_.trace->wanted()) settings_.trace->take(record);
}

std::string Agent::insertCard() {
  std::string problem = slot_.insert();
  log_.info(problem.empty() ? "Card inserted" : "Card not inserted: " + problem);
  return problem;
}

std::string Agent::removeCard() {
  std::string problem = slot_.remove();
  log_.info(problem.empty() ? "Card removed" : "Card not removed: " + problem);
  return problem;
}

Agent::Status Agent::status() const {
  Status status;
  {
    const platform::MutexLock lock(mutex_);
    status.connected = connected_;
  }
  status.reader = settings_.reader;
  status.sessionId = settings_.sessionId;
  status.backend = backend_.name();
  status.timeouts = timeouts_;
  status.setCard(slot_.status(), connections_);
  return status;
}

}  // namespace zelta::agent
