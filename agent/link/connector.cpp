#include "agent/link/connector.h"

#include <algorithm>
#include <utility>

namespace zelta::agent {

std::chrono::milliseconds Backoff::next() {
  const std::chrono::milliseconds wait = next_;
  next_ = std::min(next_ * 2, most_);
  return wait;
}

Connector::Connector(PipeClientPort& port, Settings settings, Log& log)
    : port_(port),
      settings_(std::move(settings)),
      log_(log),
      backoff_(settings_.firstRetry, settings_.longestRetry) {}

PipePair Connector::attempt() {
  failed_ = false;
  port_.watch({settings_.commandPipe, settings_.eventPipe});
  const bool hadNone = held_.commands == nullptr && held_.events == nullptr;
  held_.commands = openMissing(std::move(held_.commands), settings_.commandPipe);
  held_.events = openMissing(std::move(held_.events), settings_.eventPipe);
  if (!failed_) {
    lastNoted_.clear();
    return std::move(held_);
  }
  noteFailure();
  const bool hasOne = held_.commands != nullptr || held_.events != nullptr;
  if (hasOne) {
    const auto now = SteadyClock::now();
    if (hadNone) heldSince_ = now;
    if (now - heldSince_ < settings_.hold) {
      port_.waitForChange(settings_.firstRetry);
      return PipePair();
    }
    held_ = PipePair();
  }
  if (hasOne || failure_.result != OpenResult::kAbsent) {
    port_.waitForChange(backoff_.next());
  } else {
    port_.waitForChange(std::nullopt);
    backoff_.reset();
  }
  return PipePair();
}

void Connector::connectionEnded(bool wasAlive) {
  if (wasAlive) {
    backoff_.reset();
    return;
  }
  port_.watch({settings_.commandPipe, settings_.eventPipe});
  port_.waitForChange(backoff_.next());
}

std::unique_ptr<PipeConnection> Connector::openMissing(std::unique_ptr<PipeConnection> held,
                                                       const std::string& name) {
  if (held != nullptr) return held;
  OpenedPipe opened = port_.open(name);
  if (opened.result == OpenResult::kOpened) return std::move(opened.connection);
  // A pipe that exists but does not open says more than one that does not exist, and needs the
  // timer.
  const bool saysMore =
      opened.result != OpenResult::kAbsent && failure_.result == OpenResult::kAbsent;
  if (!failed_ || saysMore) failure_ = std::move(opened);
  failed_ = true;
  return nullptr;
}

void Connector::noteFailure() {
  if (failure_.detail == lastNoted_) return;
  lastNoted_ = failure_.detail;
  switch (failure_.result) {
    case OpenResult::kAbsent:
      log_.info("Waiting for the driver: " + failure_.detail);
      return;
    case OpenResult::kRefused:
      log_.warning("The driver is gone, or serves another agent: " + failure_.detail);
      return;
    default:
      log_.error("Cannot connect to the driver: " + failure_.detail);
      return;
  }
}

}  // namespace zelta::agent
