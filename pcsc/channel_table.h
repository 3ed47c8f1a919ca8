// The open channels by pcscd's reader number, and the one device of the driver that they share.
//
// The driver's host is loaded and the device brought up with the first channel; the last one takes
// the device down and the host with it. A reader of the driver belongs to one channel at a time.
//
// pcscd asks for the card as soon as a channel is open, and the agent connects only after the
// device has been brought up. So opening waits for the card if the agent says that it has one.
//
// Threads: any. Opening and closing are serialised, except for that wait. A use keeps its channel
// alive; `close` ends the calls inside it and waits for them.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "host/driver_host.h"
#include "pcsc/channel.h"
#include "pcsc/device.h"
#include "platform/sync/sync.h"

namespace zelta::pcsc {

// The table's dependencies.
struct Surroundings {
  // Loads the driver host; throws HostError.
  std::function<std::unique_ptr<host::DriverHost>(const std::string& modulePath,
                                                  host::HostOptions options)>
      loadHost;
  std::function<std::string()> modulePath;
  Log log;
  // Whether the reader's agent says that it has a card; returns by the deadline. May throw
  // std::bad_alloc. Empty: there are no agents.
  std::function<bool(std::uint32_t readerIndex, CardPresence::Clock::time_point deadline)>
      agentHasCard = nullptr;
};

class ChannelTable {
 private:
  struct Entry {
    std::uint32_t readerIndex = 0;
    std::unique_ptr<Channel> channel;
    std::size_t inside = 0;  // calls that use the channel now
    bool closing = false;
  };

 public:
  // How long opening waits for the card of an agent.
  static constexpr std::chrono::milliseconds kFirstCardLimit{500};
  // The pause before the agent is asked again whether it still has the card.
  static constexpr std::chrono::milliseconds kAskAgentPause{50};

  explicit ChannelTable(Surroundings surroundings);
  ChannelTable(const ChannelTable&) = delete;
  ChannelTable& operator=(const ChannelTable&) = delete;

  // One call's hold on a channel, for a scope.
  class Use {
   public:
    Use(ChannelTable& table, DWORD lun) : table_(table), entry_(table.enter(lun)) {}
    ~Use() {
      if (entry_ != nullptr) table_.leave(*entry_);
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    // Null if no channel of that number is open.
    Channel* channel() const { return entry_ == nullptr ? nullptr : entry_->channel.get(); }

   private:
    ChannelTable& table_;
    Entry* const entry_;  // owned by the table, kept by `inside`
  };

  // IFD_SUCCESS, also with no agent; IFD_NO_SUCH_DEVICE if the driver has no such reader;
  // IFD_COMMUNICATION_ERROR if the driver does not come up or the reader or number is taken.
  // Each failure is logged. Throws std::bad_alloc; nothing is open then. A channel that is open is
  // returned with its card, or without one at once if no agent has one, or after
  // `kFirstCardLimit`; other calls for it are let in meanwhile.
  [[nodiscard]] RESPONSECODE open(DWORD lun, std::uint32_t readerIndex)
      ZELTA_EXCLUDES(openMutex_, mutex_);
  // IFD_NO_SUCH_DEVICE if none is open. Waits until the driver has finished its work for this
  // channel. Needs no memory.
  [[nodiscard]] RESPONSECODE close(DWORD lun) noexcept ZELTA_EXCLUDES(openMutex_, mutex_);

 private:
  Entry* enter(DWORD lun) ZELTA_EXCLUDES(mutex_);
  void leave(Entry& entry) ZELTA_EXCLUDES(mutex_);

  [[nodiscard]] RESPONSECODE openChannel(DWORD lun, std::uint32_t readerIndex)
      ZELTA_EXCLUDES(openMutex_, mutex_);
  void awaitFirstCard(DWORD lun, std::uint32_t readerIndex) noexcept
      ZELTA_EXCLUDES(openMutex_, mutex_);
  bool isTaken(DWORD lun, std::uint32_t readerIndex) ZELTA_REQUIRES(openMutex_);
  std::shared_ptr<Device> bringUpDevice() const;
  RESPONSECODE openOnDevice(DWORD lun, std::uint32_t readerIndex) ZELTA_REQUIRES(openMutex_);
  void logFailure(std::uint32_t readerIndex, const char* reason) const noexcept;
  void dropIdleDevice() noexcept ZELTA_REQUIRES(openMutex_);

  const Surroundings surroundings_;
  platform::Mutex openMutex_ ZELTA_ACQUIRED_BEFORE(mutex_);
  // Shared with the channels, which can bring it up anew without the table.
  std::shared_ptr<Device> device_ ZELTA_GUARDED_BY(openMutex_);
  platform::Mutex mutex_;
  platform::ConditionVariable left_;
  // Changed with both mutexes held.
  std::map<DWORD, Entry> entries_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::pcsc
