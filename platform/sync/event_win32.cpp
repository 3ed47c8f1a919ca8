#include <windows.h>

#include "platform/process/never_destroyed.h"
#include "platform/sync/event.h"

namespace zelta::platform {

namespace {

class Win32Events final : public EventApi {
 public:
  EventHandle create() override { return CreateEventW(nullptr, FALSE, FALSE, nullptr); }

  bool set(EventHandle event) override { return SetEvent(event) != FALSE; }

  std::uint32_t waitAny(const EventHandle* events, std::size_t count) override {
    return WaitForMultipleObjects(static_cast<DWORD>(count), events, FALSE, INFINITE);
  }

  void close(EventHandle event) override { CloseHandle(event); }
};

static_assert(WAIT_OBJECT_0 == 0 && WAIT_FAILED == kWaitFailed);

}  // namespace

EventApi& systemEvents() {
  static NeverDestroyed<Win32Events> events;
  return events.get();
}

}  // namespace zelta::platform
