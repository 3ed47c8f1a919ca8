#include <chrono>

#include "platform/sync/clock.h"

namespace zelta::platform {

std::uint32_t tickCount() {
  const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint32_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(sinceStart).count());
}

}  // namespace zelta::platform
