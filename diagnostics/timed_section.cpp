#include "diagnostics/timed_section.h"

#include "diagnostics/log.h"
#include "platform/sync/clock.h"

namespace zelta {

TimedSection::TimedSection(const char* name) noexcept : start_(platform::tickCount()), name_(name) {
  logDebug("Start section:%s", name_.c_str());
}

TimedSection::~TimedSection() {
  const std::uint32_t elapsed = platform::tickCount() - start_;
  logDebug("End section:%s elapsed:%i", name_.c_str(), static_cast<int>(elapsed));
}

}  // namespace zelta
