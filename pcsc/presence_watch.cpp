#include "pcsc/presence_watch.h"

#include <algorithm>
#include <array>
#include <new>
#include <utility>

#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "pcsc/server_result.h"

namespace zelta::pcsc {

using framework::HRESULT;
using platform::MutexLock;

namespace {

// The driver answers the query for its server thread at once.
constexpr std::chrono::milliseconds kAnswerLimit{1000};
// The pause between queries while the server thread is starting.
constexpr std::chrono::milliseconds kFirstStartPause{1};
constexpr std::chrono::milliseconds kLongestStartPause{100};

}  // namespace

void PresenceWatch::Mailbox::clear() {
  const MutexLock lock(mutex_);
  status_.reset();
  renewalAsked_ = false;
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

void PresenceWatch::Mailbox::askForRenewal() {
  const MutexLock lock(mutex_);
  renewalAsked_ = true;
  changed_.notifyAll();
}

std::optional<HRESULT> PresenceWatch::Mailbox::await() {
  MutexLock lock(mutex_);
  changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return stopped_ || renewalAsked_ || status_.has_value();
  });
  return stopped_ ? std::nullopt : status_;
}

bool PresenceWatch::Mailbox::hasNewsWithin(std::chrono::milliseconds time) {
  MutexLock lock(mutex_);
  return changed_.waitFor(lock, time, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return stopped_ || renewalAsked_ || status_.has_value();
  });
}

bool PresenceWatch::Mailbox::stopped() {
  const MutexLock lock(mutex_);
  return stopped_;
}

bool PresenceWatch::Mailbox::pause(std::chrono::milliseconds time) {
  MutexLock lock(mutex_);
  return !changed_.waitFor(lock, time,
                           [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return stopped_; });
}

PresenceWatch::PresenceWatch(ReaderFile& reader, std::shared_ptr<CardPresence> presence, Log log)
    : reader_(reader),
      presence_(std::move(presence)),
      log_(std::move(log)),
      mailbox_(std::make_shared<Mailbox>()),
      thread_([this] { run(); }) {}

PresenceWatch::~PresenceWatch() {
  stop();
  thread_.join();
}

void PresenceWatch::stop() { mailbox_->stop(); }

void PresenceWatch::run() {
  for (;;) {
    const auto begun = std::chrono::steady_clock::now();
    const Outcome outcome = watchOneCard();
    if (outcome == Outcome::kStopped) return;
    const bool lasted = std::chrono::steady_clock::now() - begun >= kLasting;
    const bool goesOn = outcome == Outcome::kNotServing ? revive() : pauseAfter(outcome, lasted);
    if (!goesOn) return;
  }
}

bool PresenceWatch::pauseAfter(Outcome outcome, bool lasted) {
  if (outcome == Outcome::kShown || lasted) {
    failures_ = 0;
    pause_ = kFirstPause;
    return true;
  }
  if (++failures_ == 1) return true;
  const auto longest = outcome == Outcome::kLeftEarly ? kLongestSwapPause : kLongestPause;
  const auto time = std::min(pause_, longest);
  pause_ = std::min(pause_ * 2, kLongestPause);
  return mailbox_->pause(time);
}

PresenceWatch::Outcome PresenceWatch::watchOneCard() {
  try {
    const Outcome outcome = awaitInsertion();
    return outcome == Outcome::kShown ? watchRemoval() : outcome;
  } catch (const std::bad_alloc&) {
    return Outcome::kFailed;  // no memory for a request: none is waiting
  }
}

PresenceWatch::Outcome PresenceWatch::awaitInsertion() {
  const auto asked = std::chrono::steady_clock::now();
  const auto request = submit(IOCTL_SMARTCARD_IS_PRESENT, false);
  const bool prompt = std::chrono::steady_clock::now() - asked < kPromptCheck;
  if (!serves(*request)) return Outcome::kNotServing;
  if (!prompt && !mailbox_->hasNewsWithin(kRecheckPause)) request->cancel();
  const std::optional<HRESULT> status = mailbox_->await();
  if (!status) return abandonWait(*request);
  if (*status == host::kDeviceGone) return Outcome::kNotServing;
  if (framework::failed(*status)) return Outcome::kFailed;
  tellServing();
  return Outcome::kShown;
}

PresenceWatch::Outcome PresenceWatch::watchRemoval() {
  presence_->expectCard();
  const auto request = submit(IOCTL_SMARTCARD_IS_ABSENT, true);
  const bool shown = presence_->cardEntered();
  const std::optional<HRESULT> status = mailbox_->await();
  if (!status) return abandonWait(*request);
  if (*status == host::kDeviceGone) return Outcome::kNotServing;
  return shown ? Outcome::kShown : Outcome::kLeftEarly;
}

PresenceWatch::Outcome PresenceWatch::abandonWait(host::IoOperation& request) {
  if (mailbox_->stopped()) {
    request.cancel();
    return Outcome::kStopped;
  }
  tellNotServing([] { return "the driver refuses a protocol that the card offers"; });
  return Outcome::kNotServing;  // the request ends with the device
}

std::shared_ptr<host::IoOperation> PresenceWatch::submit(std::uint32_t code, bool forRemoval) {
  mailbox_->clear();
  return reader_.get()->submit(
      code, {}, 0,
      [mailbox = mailbox_, presence = presence_, forRemoval](const host::IoResult& result) {
        // However the request ends, the card is out.
        if (forRemoval) presence->cardLeft();
        mailbox->deliver(result.status);
      });
}

bool PresenceWatch::serves(const host::IoOperation& request) {
  auto pause = kFirstStartPause;
  while (!request.completed()) {
    const std::uint32_t result = serverResult().value_or(kServing);
    if (result == kServing) {
      tellServing();
      return true;
    }
    if (result != kStillStarting) {
      tellNotServing([result] { return serverResultText(result); });
      return false;
    }
    if (!mailbox_->pause(pause)) return true;
    pause = std::min(pause * 2, kLongestStartPause);
  }
  return true;
}

std::optional<std::uint32_t> PresenceWatch::serverResult() {
  std::array<std::uint8_t, kNumberSize> tag{};
  std::array<std::uint8_t, kNumberSize> number{};
  storeLittleEndian(tag.data(), SERVER_RESULT);
  const host::IoStatus answer =
      reader_.get()->controlInParts(IOCTL_SMARTCARD_GET_ATTRIBUTE, {{}, {tag.data(), tag.size()}},
                                    {{}, {number.data(), number.size()}}, kAnswerLimit);
  if (framework::failed(answer.status) || answer.information != kNumberSize) return std::nullopt;
  return loadLittleEndian(number.data());
}

// The pause grows over bring-ups that follow each other closely, also if the reader serves between.
bool PresenceWatch::revive() {
  if (std::chrono::steady_clock::now() - revived_ > kLongestRevivalPause) {
    revivalPause_ = kFirstRevivalPause;
  }
  while (mailbox_->pause(revivalPause_)) {
    revivalPause_ = std::min(revivalPause_ * 2, kLongestRevivalPause);
    const std::optional<bool> renewed = renew();
    revived_ = std::chrono::steady_clock::now();
    if (renewed) return *renewed;
  }
  return false;
}

std::optional<bool> PresenceWatch::renew() {
  try {
    return reader_.renew();
  } catch (const host::HostError& failure) {
    tellNotServing([&failure] { return failure.what(); });
  } catch (const std::bad_alloc&) {  // tried again
  }
  return std::nullopt;
}

template <typename MakeReason>
void PresenceWatch::tellNotServing(MakeReason makeReason) noexcept {
  try {
    const std::string reason = makeReason();
    if (told_ == reason) return;
    log_(LogLevel::kError, "reader " + reader_.name() + " does not serve: " + reason +
                               "; the device is restarted until it serves");
    told_ = reason;
  } catch (const std::bad_alloc&) {  // no memory to report it
  }
}

// At the same level as the problem, so that a reader of the log sees both.
void PresenceWatch::tellServing() noexcept {
  if (told_.empty()) return;
  try {
    log_(LogLevel::kError, "reader " + reader_.name() + " serves again");
  } catch (const std::bad_alloc&) {  // no memory to report it
  }
  told_.clear();
}

}  // namespace zelta::pcsc
