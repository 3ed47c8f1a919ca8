// Opens both of the driver's pipes, however long that takes.
//
// The connector waits for the system's notice that something about the pipes has changed. The
// system does not report when a pipe that refuses would accept again, so it is tried again after
// growing waits. If one pipe opens and the other does not, the first is held for a moment: the
// driver is about to create the second, or to take it back from its last client. Then it is given
// back, because the driver may hold a dead client on the other pipe and notices that only when it
// loses this one.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "agent/link/pipe_client_port.h"
#include "agent/program/log.h"

namespace zelta::agent {

// Growing waits: `first`, doubled each time up to `most`.
class Backoff {
 public:
  Backoff(std::chrono::milliseconds first, std::chrono::milliseconds most)
      : first_(first), most_(most), next_(first) {}
  std::chrono::milliseconds next();
  void reset() { next_ = first_; }

 private:
  const std::chrono::milliseconds first_;
  const std::chrono::milliseconds most_;
  std::chrono::milliseconds next_;
};

struct PipePair {
  std::unique_ptr<PipeConnection> commands;
  std::unique_ptr<PipeConnection> events;
};

// Used by one thread.
class Connector {
 public:
  struct Settings {
    std::string commandPipe;
    std::string eventPipe;
    std::chrono::milliseconds firstRetry;
    std::chrono::milliseconds longestRetry;
    std::chrono::milliseconds hold;  // of one pipe without the other
  };

  // `port` and `log` outlive the connector.
  Connector(PipeClientPort& port, Settings settings, Log& log);

  // Attempts to open both pipes. If that fails, waits until another attempt makes sense and returns
  // an empty pair.
  PipePair attempt();
  // Notes a connection's end: after one that the driver never accepted, the next must not follow at
  // once.
  void connectionEnded(bool wasAlive);

 private:
  // `held`, or the pipe if it opens; notes a failure.
  std::unique_ptr<PipeConnection> openMissing(std::unique_ptr<PipeConnection> held,
                                              const std::string& name);
  // Logs why the attempt failed, unless the one before failed for the same reason.
  void noteFailure();

  PipeClientPort& port_;
  const Settings settings_;
  Log& log_;
  Backoff backoff_;
  PipePair held_;
  SteadyClock::time_point heldSince_;
  OpenedPipe failure_;     // the first of this attempt
  bool failed_ = false;    // whether there is one
  std::string lastNoted_;  // its detail in the attempt before
};

}  // namespace zelta::agent
