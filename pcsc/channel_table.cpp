#include "pcsc/channel_table.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "pcsc/reader_names.h"

namespace zelta::pcsc {

using platform::MutexLock;

ChannelTable::ChannelTable(Surroundings surroundings) : surroundings_(std::move(surroundings)) {}

ChannelTable::Entry* ChannelTable::enter(DWORD lun) {
  const MutexLock lock(mutex_);
  const auto found = entries_.find(lun);
  if (found == entries_.end() || found->second.closing) return nullptr;
  ++found->second.inside;
  return &found->second;
}

void ChannelTable::leave(Entry& entry) {
  const MutexLock lock(mutex_);
  if (--entry.inside == 0) left_.notifyAll();
}

RESPONSECODE ChannelTable::open(DWORD lun, std::uint32_t readerIndex) {
  const RESPONSECODE code = openChannel(lun, readerIndex);
  if (code == IFD_SUCCESS) awaitFirstCard(lun, readerIndex);
  return code;
}

void ChannelTable::awaitFirstCard(DWORD lun, std::uint32_t readerIndex) noexcept {
  using Clock = CardPresence::Clock;
  const Use use(*this, lun);
  if (use.channel() == nullptr || !surroundings_.agentHasCard) return;
  const Clock::time_point deadline = Clock::now() + kFirstCardLimit;
  try {
    while (Clock::now() < deadline && surroundings_.agentHasCard(readerIndex, deadline)) {
      if (use.channel()->awaitCard(std::min(deadline, Clock::now() + kAskAgentPause))) return;
    }
  } catch (const std::bad_alloc&) {  // no memory to ask the agent: as if there were none
  }
}

RESPONSECODE ChannelTable::openChannel(DWORD lun, std::uint32_t readerIndex) {
  const MutexLock openLock(openMutex_);
  if (isTaken(lun, readerIndex)) return IFD_COMMUNICATION_ERROR;
  RESPONSECODE code = IFD_COMMUNICATION_ERROR;
  try {
    if (!device_) device_ = bringUpDevice();
    code = openOnDevice(lun, readerIndex);
  } catch (const std::exception& failure) {
    logFailure(readerIndex, failure.what());
  }
  dropIdleDevice();
  return code;
}

void ChannelTable::logFailure(std::uint32_t readerIndex, const char* reason) const noexcept {
  try {
    surroundings_.log(LogLevel::kCritical,
                      "reader " + readerName(readerIndex) + " cannot be had: " + reason);
  } catch (const std::bad_alloc&) {  // no memory to report it, perhaps for the same reason
  }
}

bool ChannelTable::isTaken(DWORD lun, std::uint32_t readerIndex) {
  const MutexLock lock(mutex_);
  if (entries_.count(lun) != 0) {
    surroundings_.log(LogLevel::kError, "channel " + std::to_string(lun) + " is open already");
    return true;
  }
  for (const auto& [otherLun, entry] : entries_) {
    if (entry.readerIndex != readerIndex) continue;
    surroundings_.log(LogLevel::kCritical,
                      "reader " + readerName(readerIndex) +
                          " is in use already: two entries of reader.conf name it");
    return true;
  }
  return false;
}

std::shared_ptr<Device> ChannelTable::bringUpDevice() const {
  host::HostOptions options;
  options.driverError = [log = surroundings_.log](const std::string& text) {
    log(LogLevel::kError, text);
  };
  return std::make_shared<Device>(
      surroundings_.loadHost(surroundings_.modulePath(), std::move(options)));
}

RESPONSECODE ChannelTable::openOnDevice(DWORD lun, std::uint32_t readerIndex) {
  Device::Generation generation = 0;
  std::shared_ptr<host::File> file = device_->open(readerIndex, &generation);
  if (!file) {
    surroundings_.log(LogLevel::kError, "the driver has no reader " + readerName(readerIndex));
    return IFD_NO_SUCH_DEVICE;
  }
  auto channel = std::make_unique<Channel>(
      readerName(readerIndex), std::move(file),
      [device = device_, readerIndex, generation]() mutable {
        return device->renew(readerIndex, &generation);
      },
      surroundings_.log);
  const MutexLock lock(mutex_);
  Entry& entry = entries_[lun];
  entry.readerIndex = readerIndex;
  entry.channel = std::move(channel);
  return IFD_SUCCESS;
}

void ChannelTable::dropIdleDevice() noexcept {
  {
    const MutexLock lock(mutex_);
    if (!entries_.empty()) return;
  }
  device_.reset();
}

RESPONSECODE ChannelTable::close(DWORD lun) noexcept {
  const MutexLock openLock(openMutex_);
  bool last = false;
  Channel* channel = nullptr;
  {
    const MutexLock lock(mutex_);
    const auto found = entries_.find(lun);
    if (found == entries_.end()) return IFD_NO_SUCH_DEVICE;
    found->second.closing = true;
    channel = found->second.channel.get();
    last = entries_.size() == 1;
  }
  channel->close();
  // Ends the calls that still run on the channel. If other channels need the device, those calls
  // end by themselves.
  if (last) device_->shutDown();
  std::unique_ptr<Channel> closed;
  {
    MutexLock lock(mutex_);
    Entry& entry = entries_.at(lun);
    left_.wait(lock, [&entry] { return entry.inside == 0; });
    closed = std::move(entry.channel);
    entries_.erase(lun);
  }
  closed.reset();
  dropIdleDevice();
  return IFD_SUCCESS;
}

}  // namespace zelta::pcsc
