// Unnamed auto-reset events and a wait for any of several.
//
// Any thread may call; closing must not overlap a wait. A failing call returns its failure value
// and leaves the reason in the calling thread's last error.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zelta::platform {

using EventHandle = void*;  // null is none

inline constexpr std::uint32_t kWaitFailed = 0xFFFFFFFF;

class EventApi {
 public:
  virtual ~EventApi() = default;
  // Not signalled; null on failure.
  virtual EventHandle create() = 0;
  virtual bool set(EventHandle event) = 0;
  // Waits without limit; the index of the first signalled event, which is reset by this, or
  // `kWaitFailed`. At most 8 events.
  virtual std::uint32_t waitAny(const EventHandle* events, std::size_t count) = 0;
  virtual void close(EventHandle event) = 0;
};

EventApi& systemEvents();

}  // namespace zelta::platform
