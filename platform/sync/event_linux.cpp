#include "platform/sync/event_linux.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <array>
#include <cerrno>
#include <exception>
#include <map>
#include <memory>

#include "platform/process/error.h"
#include "platform/process/never_destroyed.h"
#include "platform/sync/sync.h"

namespace zelta::platform {

namespace {

constexpr std::size_t kMaxWaits = 8;

using SharedFd = std::shared_ptr<const ScopedFd>;

// Resets the event: true if it was signalled and no other waiter was faster.
bool consume(int descriptor) {
  eventfd_t count = 0;
  return eventfd_read(descriptor, &count) == 0;
}

// A handle is a number that is never given out twice, so that a closed one is not mistaken for
// another. A thread that waits on an event or signals it shares its descriptor meanwhile.
class LinuxEvents final : public EventApi {
 public:
  EventHandle create() override;
  bool set(EventHandle event) override;
  std::uint32_t waitAny(const EventHandle* events, std::size_t count) override;
  void close(EventHandle event) override;

  SharedFd find(EventHandle event);

 private:
  Mutex mutex_;
  std::uintptr_t lastHandle_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::map<std::uintptr_t, SharedFd> events_ ZELTA_GUARDED_BY(mutex_);
};

EventHandle LinuxEvents::create() {
  ScopedFd descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!descriptor) {
    setLastError(error::kNotEnoughMemory);
    return nullptr;
  }
  try {
    SharedFd shared = std::make_shared<const ScopedFd>(std::move(descriptor));
    const MutexLock lock(mutex_);
    events_.emplace(lastHandle_ + 1, std::move(shared));
    return reinterpret_cast<EventHandle>(++lastHandle_);
  } catch (const std::exception&) {
    setLastError(error::kNotEnoughMemory);
    return nullptr;
  }
}

SharedFd LinuxEvents::find(EventHandle event) {
  const MutexLock lock(mutex_);
  const auto found = events_.find(reinterpret_cast<std::uintptr_t>(event));
  if (found != events_.end()) return found->second;
  setLastError(error::kInvalidHandle);
  return nullptr;
}

bool LinuxEvents::set(EventHandle event) {
  const SharedFd descriptor = find(event);
  if (descriptor == nullptr) return false;
  if (signalEvent(descriptor->get())) return true;
  setLastError(error::kGenFailure);
  return false;
}

std::uint32_t LinuxEvents::waitAny(const EventHandle* events, std::size_t count) {
  if (count == 0 || count > kMaxWaits) {
    setLastError(error::kInvalidParameter);
    return kWaitFailed;
  }
  std::array<SharedFd, kMaxWaits> held;
  std::array<pollfd, kMaxWaits> waits{};
  for (std::size_t i = 0; i < count; ++i) {
    held[i] = find(events[i]);
    if (held[i] == nullptr) return kWaitFailed;
    waits[i] = {held[i]->get(), POLLIN, 0};
  }
  for (;;) {
    const int ready = poll(waits.data(), count, -1);
    if (ready < 0 && errno != EINTR) {
      setLastError(error::kGenFailure);
      return kWaitFailed;
    }
    if (ready <= 0) continue;
    for (std::size_t i = 0; i < count; ++i) {
      if (consume(waits[i].fd)) return static_cast<std::uint32_t>(i);
    }
  }
}

void LinuxEvents::close(EventHandle event) {
  const MutexLock lock(mutex_);
  events_.erase(reinterpret_cast<std::uintptr_t>(event));
}

LinuxEvents& linuxEvents() {
  static NeverDestroyed<LinuxEvents> events;
  return events.get();
}

}  // namespace

EventApi& systemEvents() { return linuxEvents(); }

ScopedFd duplicateEvent(EventHandle event) {
  const SharedFd descriptor = linuxEvents().find(event);
  if (descriptor == nullptr) return ScopedFd();
  const int copy = fcntl(descriptor->get(), F_DUPFD_CLOEXEC, 0);
  if (copy < 0) {
    setLastError(error::kNotEnoughMemory);
    return ScopedFd();
  }
  return ScopedFd(copy);
}

bool signalEvent(int descriptor) {
  // EAGAIN: the counter is full, so the event is signalled all the same.
  return eventfd_write(descriptor, 1) == 0 || errno == EAGAIN;
}

}  // namespace zelta::platform
