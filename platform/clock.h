// Wall clock and tick counter.
#pragma once

#include <cstdint>

namespace zelta::platform {

class WallClock {
 public:
  virtual ~WallClock() = default;
  // 100-nanosecond units since 1970-01-01T00:00:00Z.
  virtual std::int64_t now() = 0;
};

WallClock& systemWallClock();

// Milliseconds of a steady counter; wraps at 2^32.
std::uint32_t tickCount();

}  // namespace zelta::platform
