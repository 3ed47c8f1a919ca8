#include "agent/remote/forwarder.h"

#include <cstdio>
#include <stdexcept>
#include <utility>

#include "contract/harmless.h"

namespace zelta::agent {

namespace {

std::string inMilliseconds(std::chrono::microseconds time) {
  char text[32];
  (void)std::snprintf(text, sizeof text, "%.1f ms",
                      std::chrono::duration<double, std::milli>(time).count());
  return text;
}

}  // namespace

Forwarder::Forwarder(Dialer& dialer, CardBackend& backend, Settings settings, Log& log)
    : dialer_(dialer),
      backend_(backend),
      settings_(std::move(settings)),
      log_(log),
      slot_(
          backend, [this] { threads_.cardDeparted(); }, settings_.onFailure, settings_.trace),
      threads_(slot_, settings_.card.answerLimit,
               [this](const char* problem) {
                 settings_.onFailure(problem);
                 stop();
               }),
      backoff_(settings_.firstRetry, settings_.longestRetry) {}

Forwarder::~Forwarder() {
  threads_.stop();
  slot_.stop();
}

void Forwarder::run() {
  threads_.start();
  while (!stopping()) {
    if (!waitForRetry(lend())) break;
  }
  threads_.stop();
  slot_.stop();
}

std::string Forwarder::lend() {
  greeted_ = false;
  log_.info("Calling " + settings_.place);
  const std::unique_ptr<DialedCall> call = dialer_.dial();
  LentCard::Settings card = settings_.card;
  card.onLate = [this] { timeouts_.fetch_add(1, std::memory_order_relaxed); };
  LentCard lent(
      call->line(), slot_, threads_, card,
      [this](const Hello& peer, std::chrono::microseconds roundTrip) {
        noteGreeted(peer, roundTrip);
      },
      log_);
  serve(lent);
  const int exitCode = call->hangUp();
  return stopping() ? std::string() : judge(lent, exitCode);
}

void Forwarder::serve(LentCard& lent) {
  {
    const platform::MutexLock lock(mutex_);
    lent_ = &lent;
    if (stopping_) lent.stop();
  }
  lent.serve();
  connected_ = false;
  const platform::MutexLock lock(mutex_);
  lent_ = nullptr;
}

void Forwarder::noteGreeted(const Hello& peer, std::chrono::microseconds roundTrip) {
  greeted_ = true;
  connected_ = true;
  ++greetings_;
  backoff_.reset();
  log_.info("Connected to zelta-agent " + harmless(peer.version) + " on " + settings_.place +
            ", round trip " + inMilliseconds(roundTrip));
}

std::string Forwarder::judge(const LentCard& lent, int exitCode) const {
  const std::string& place = settings_.place;
  if (lent.end() == LineEnd::kVersion) {
    throw std::runtime_error(place + ": " + lent.describeEnd() + "; the two must be the same");
  }
  if (lent.end() == LineEnd::kStranger) {
    throw std::runtime_error(place + ": " + lent.describeEnd() +
                             "; the shell there must print nothing for a command");
  }
  if (!greeted_ && exitCode == kSshNoProgram) {
    throw std::runtime_error(place + ": zelta-agent is not installed there, or not in the PATH");
  }
  if (!greeted_ && exitCode == kSshFailed) return "ssh does not reach " + place;
  if (!greeted_ && lent.end() == LineEnd::kClosed) {
    return "zelta-agent on " + place + " has ended with " + std::to_string(exitCode);
  }
  return place + ": " + lent.describeEnd();
}

bool Forwarder::waitForRetry(const std::string& why) {
  platform::MutexLock lock(mutex_);
  if (stopping_) return false;
  const std::chrono::milliseconds wait = backoff_.next();
  lock.unlock();
  log_.warning(why + "; calling again in " + inMilliseconds(wait));
  lock.lock();
  return !changed_.waitFor(lock, wait,
                           [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return stopping_; });
}

void Forwarder::stop() {
  const platform::MutexLock lock(mutex_);
  stopping_ = true;
  if (lent_ != nullptr) lent_->stop();
  changed_.notifyAll();
}

std::string Forwarder::insertCard() {
  std::string problem = slot_.insert();
  log_.info(problem.empty() ? "Card inserted" : "Card not inserted: " + problem);
  return problem;
}

std::string Forwarder::removeCard() {
  std::string problem = slot_.remove();
  log_.info(problem.empty() ? "Card removed" : "Card not removed: " + problem);
  return problem;
}

Service::Status Forwarder::status() const {
  Status status;
  status.connected = connected_;
  status.reader = settings_.reader;
  status.backend = backend_.name();
  status.timeouts = timeouts_;
  status.setCard(slot_.status(), greetings_);
  return status;
}

bool Forwarder::stopping() {
  const platform::MutexLock lock(mutex_);
  return stopping_;
}

}  // namespace zelta::agent
