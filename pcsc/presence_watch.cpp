#include "pcsc/presence_watch.h"

#include <algorithm>
#include <new>
#include <utility>

#include "pcsc/driver_io.h"

namespace zelta::pcsc {

using framework::HRESULT;
using platform::MutexLock;

namespace {

// How long the driver may take to check for the card before the wait is begun anew.
constexpr std::chrono::seconds kDispatchLimit{60};

}  // namespace

void PresenceWatch::Mailbox::clear() {
  const MutexLock lock(mutex_);
  status_.reset();
}

void PresenceWatch::Mailbox::deliver(HRESULT status) noexcept {
  const MutexLock lock(mutex_);
  status_ = status;
  changed_.notifyAll();
}

void PresenceWatch::Mailbox::stop() {
  const MutexLock lock(mutex_);
  stopped_ = true;
  changed_.notifyAll();
}

std::optional<HRESULT> PresenceWatch::Mailbox::await() {
  MutexLock lock(mutex_);
  changed_.wait(
      lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return stopped_ || status_.has_value(); });
  return stopped_ ? std::nullopt : status_;
}

bool PresenceWatch::Mailbox::pause(std::chrono::milliseconds time) {
  MutexLock lock(mutex_);
  return !changed_.waitFor(lock, time,
                           [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return stopped_; });
}

PresenceWatch::PresenceWatch(std::shared_ptr<host::File> file,
                             std::shared_ptr<CardPresence> presence)
    : file_(std::move(file)),
      presence_(std::move(presence)),
      mailbox_(std::make_shared<Mailbox>()),
      thread_([this] { run(); }) {}

PresenceWatch::~PresenceWatch() {
  stop();
  thread_.join();
}

void PresenceWatch::stop() { mailbox_->stop(); }

void PresenceWatch::run() {
  int failures = 0;  // in a row, each as soon as the request was made
  auto pause = kFirstPause;
  for (;;) {
    const auto begun = std::chrono::steady_clock::now();
    const Outcome outcome = watchOneCard();
    if (outcome == Outcome::kEnd) return;
    if (outcome == Outcome::kShown || std::chrono::steady_clock::now() - begun >= kLasting) {
      failures = 0;
      pause = kFirstPause;
      continue;
    }
    if (++failures == 1) continue;
    if (!mailbox_->pause(pause)) return;
    pause = std::min(pause * 2, kLongestPause);
  }
}

PresenceWatch::Outcome PresenceWatch::watchOneCard() {
  try {
    const std::optional<HRESULT> status = awaitInsertion();
    if (!status || *status == host::kDeviceGone) return Outcome::kEnd;
    return framework::succeeded(*status) ? watchRemoval() : Outcome::kNotShown;
  } catch (const std::bad_alloc&) {
    return Outcome::kNotShown;  // no memory for a request: none is waiting
  }
}

std::optional<HRESULT> PresenceWatch::awaitInsertion() {
  mailbox_->clear();
  const auto request = file_->submit(
      kIoctlIsPresent, {}, 0,
      [mailbox = mailbox_](const host::IoResult& result) { mailbox->deliver(result.status); });
  const std::optional<HRESULT> status = mailbox_->await();
  if (!status) request->cancel();
  return status;
}

PresenceWatch::Outcome PresenceWatch::watchRemoval() {
  mailbox_->clear();
  presence_->expectCard();
  // However the request ends, the card is out.
  const auto request =
      file_->submit(kIoctlIsAbsent, {}, 0,
                    [mailbox = mailbox_, presence = presence_](const host::IoResult& result) {
                      presence->cardLeft();
                      mailbox->deliver(result.status);
                    });
  while (!request->waitDispatched(kDispatchLimit)) {
  }
  const bool shown = presence_->cardEntered();
  const std::optional<HRESULT> status = mailbox_->await();
  if (!status) request->cancel();
  if (!status || *status == host::kDeviceGone) return Outcome::kEnd;
  return shown ? Outcome::kShown : Outcome::kNotShown;
}

}  // namespace zelta::pcsc
