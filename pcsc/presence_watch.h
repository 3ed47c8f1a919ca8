// Keeps one presence request waiting in the driver at all times: for the insertion while the card
// is out, for the removal while it is in. Notices when the reader has stopped serving, and brings
// it back.
//
// The request for the removal waits in the driver before the card is shown to pcscd, so that no
// removal that follows is missed. A request that fails, as insertions do when the agent is lost,
// is made again at once. Only if requests repeatedly fail as soon as they are made, or cards leave
// before they are shown, is there a growing pause between them.
//
// While the driver takes a request for the insertion it asks the agent for the card. If the agent
// does not answer in time, the card may be in although no event will report it. So a request that
// the driver was slow to take is cancelled after a while and made again.
//
// The driver's server thread ends if nobody asked for a card for a while, or if it cannot
// make its pipes. So after each request for an insertion that waits in the driver, the driver is
// asked for the thread's state: a thread that serves then will serve that request. A thread that
// has ended is restarted with the device, after a pause that grows until it serves again; pcscd's
// log says why and when. A reader that refuses its card's protocols is restarted in the same way. A
// driver that does not know the query counts as serving.
//
// Ownership: holds its reader and shares `presence`; a request that is still waiting at the end is
// cancelled, and its completion may come later. Threads: has its own, joined by the destructor,
// which waits for a presence check that the driver is making, or for the device to come up.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "pcsc/card_presence.h"
#include "pcsc/log.h"
#include "pcsc/reader_file.h"

namespace zelta::pcsc {

class PresenceWatch {
 public:
  // A request that lasts less than this failed as soon as it was made.
  static constexpr std::chrono::milliseconds kLasting{100};
  static constexpr std::chrono::milliseconds kFirstPause{10};
  static constexpr std::chrono::milliseconds kLongestPause{1000};
  // While cards come and go. Short, because the last card must be seen soon.
  static constexpr std::chrono::milliseconds kLongestSwapPause{40};
  // If the driver takes longer than this to take a request, the agent has not answered it.
  static constexpr std::chrono::milliseconds kPromptCheck{1000};
  static constexpr std::chrono::milliseconds kRecheckPause{1000};
  static constexpr std::chrono::milliseconds kFirstRevivalPause{100};
  static constexpr std::chrono::milliseconds kLongestRevivalPause{10000};

  PresenceWatch(ReaderFile& reader, std::shared_ptr<CardPresence> presence, Log log);
  ~PresenceWatch();
  PresenceWatch(const PresenceWatch&) = delete;
  PresenceWatch& operator=(const PresenceWatch&) = delete;

  // Asks the thread to end and does not wait.
  void stop();
  // The driver refuses a protocol that the card offers. Has the device brought up anew, without
  // waiting for that. Any thread.
  void bringUpAnew() { mailbox_->askForRenewal(); }

 private:
  // Holds the request's completion, which its callback leaves under the driver's locks.
  class Mailbox {
   public:
    void clear() ZELTA_EXCLUDES(mutex_);
    void deliver(framework::HRESULT status) noexcept ZELTA_EXCLUDES(mutex_);
    void stop() ZELTA_EXCLUDES(mutex_);
    void askForRenewal() ZELTA_EXCLUDES(mutex_);
    // None when stopped, or asked for a renewal.
    std::optional<framework::HRESULT> await() ZELTA_EXCLUDES(mutex_);
    // Whether `await` would return now, or within this time.
    bool hasNewsWithin(std::chrono::milliseconds time) ZELTA_EXCLUDES(mutex_);
    // False when stopped.
    bool pause(std::chrono::milliseconds time) ZELTA_EXCLUDES(mutex_);
    bool stopped() ZELTA_EXCLUDES(mutex_);

   private:
    platform::Mutex mutex_;
    platform::ConditionVariable changed_;
    std::optional<framework::HRESULT> status_ ZELTA_GUARDED_BY(mutex_);
    bool renewalAsked_ ZELTA_GUARDED_BY(mutex_) = false;  // since `clear`
    bool stopped_ ZELTA_GUARDED_BY(mutex_) = false;
  };

  enum class Outcome {
    kShown,
    kLeftEarly,  // before it was shown
    kFailed,
    kNotServing,
    kStopped,
  };

  void run();
  // Pauses according to the last outcomes. False when stopped.
  bool pauseAfter(Outcome outcome, bool lasted);
  Outcome watchOneCard();
  Outcome awaitInsertion();
  Outcome watchRemoval();
  // Handles a request that has not ended: cancels it when stopped.
  Outcome abandonWait(host::IoOperation& request);
  std::shared_ptr<host::IoOperation> submit(std::uint32_t code, bool forRemoval);
  // Asks until the answer is final or the request has ended; false if the reader does not serve.
  bool serves(const host::IoOperation& request);
  // None if the driver does not know, which counts as serving.
  std::optional<std::uint32_t> serverResult();
  // Brings the device up anew, however often that takes. False when stopped, or if the device is
  // down for good.
  bool revive();
  // False if the device is down for good; none if it did not come up.
  std::optional<bool> renew();
  // Logs the reason, but only once if it recurs.
  template <typename MakeReason>
  void tellNotServing(MakeReason makeReason) noexcept;
  void tellServing() noexcept;

  ReaderFile& reader_;  // not owned
  const std::shared_ptr<CardPresence> presence_;
  const Log log_;
  const std::shared_ptr<Mailbox> mailbox_;
  // For the thread only:
  int failures_ = 0;  // in a row, each as soon as the request was made
  std::chrono::milliseconds pause_ = kFirstPause;
  std::chrono::milliseconds revivalPause_ = kFirstRevivalPause;
  std::chrono::steady_clock::time_point revived_;  // last
  std::string told_;  // why the reader does not serve, as the log has it; empty: it serves
  std::thread thread_;
};

}  // namespace zelta::pcsc
