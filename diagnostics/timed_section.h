// Reports the start of an entry point and, at the end of the scope, how many milliseconds it took.
#pragma once

#include <cstdint>
#include <string>

namespace zelta {

class TimedSection {
 public:
  explicit TimedSection(const char* name);
  ~TimedSection();
  TimedSection(const TimedSection&) = delete;
  TimedSection& operator=(const TimedSection&) = delete;

 private:
  std::uint32_t start_;  // milliseconds
  std::string name_;
};

}  // namespace zelta
