// Keeps one presence request waiting in the driver at all times: for the insertion while the card
// is out, for the removal while it is in.
//
// The request for the removal waits in the driver before the card is shown to pcscd, so that no
// removal that follows is missed. A request that fails, as insertions do when the agent is lost,
// is made again at once: the driver stops serving a reader that nobody waits on. Only where
// requests fail over and over as soon as they are made is there a growing pause between them.
//
// Ownership: holds its file and shares `presence`; a request that is still waiting at the end is
// cancelled, and its completion may come later. Threads: one of its own, joined by the destructor,
// which waits for a presence check that the driver is making.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <thread>

#include "host/driver_host.h"
#include "pcsc/card_presence.h"

namespace zelta::pcsc {

class PresenceWatch {
 public:
  // A request that lasted so long did not fail as soon as it was made.
  static constexpr std::chrono::milliseconds kLasting{100};
  static constexpr std::chrono::milliseconds kFirstPause{10};
  static constexpr std::chrono::milliseconds kLongestPause{1000};

  PresenceWatch(std::shared_ptr<host::File> file, std::shared_ptr<CardPresence> presence);
  ~PresenceWatch();
  PresenceWatch(const PresenceWatch&) = delete;
  PresenceWatch& operator=(const PresenceWatch&) = delete;

  // Lets the thread end, without waiting for it.
  void stop();

 private:
  // The request's completion as its callback leaves it, under the driver's locks.
  class Mailbox {
   public:
    void clear() ZELTA_EXCLUDES(mutex_);
    void deliver(framework::HRESULT status) noexcept ZELTA_EXCLUDES(mutex_);
    void stop() ZELTA_EXCLUDES(mutex_);
    // None when stopped.
    std::optional<framework::HRESULT> await() ZELTA_EXCLUDES(mutex_);
    // False when stopped.
    bool pause(std::chrono::milliseconds time) ZELTA_EXCLUDES(mutex_);

   private:
    platform::Mutex mutex_;
    platform::ConditionVariable changed_;
    std::optional<framework::HRESULT> status_ ZELTA_GUARDED_BY(mutex_);
    bool stopped_ ZELTA_GUARDED_BY(mutex_) = false;
  };

  enum class Outcome { kShown, kNotShown, kEnd };

  void run();
  Outcome watchOneCard();
  Outcome watchRemoval();
  // The status that the request for an insertion ended with; none when stopped.
  std::optional<framework::HRESULT> awaitInsertion();

  const std::shared_ptr<host::File> file_;
  const std::shared_ptr<CardPresence> presence_;
  const std::shared_ptr<Mailbox> mailbox_;
  std::thread thread_;
};

}  // namespace zelta::pcsc
