// Reports the start of an entry point and, at the end of the scope, how many milliseconds it took.
// Both are debug lines. Any thread; never throws.
#pragma once

#include <cstdint>

#include "diagnostics/scope_name.h"

namespace zelta {

class TimedSection {
 public:
  // `name` is the operation's name ("CMyDevice::OnD0Entry"); it is copied.
  explicit TimedSection(const char* name) noexcept;
  ~TimedSection();
  TimedSection(const TimedSection&) = delete;
  TimedSection& operator=(const TimedSection&) = delete;

 private:
  std::uint32_t start_;  // milliseconds
  ScopeName name_;
};

}  // namespace zelta
