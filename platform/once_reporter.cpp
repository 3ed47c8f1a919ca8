#include "platform/once_reporter.h"

#include <algorithm>
#include <utility>

#include "platform/identity_hash.h"

namespace zelta::platform {

OnceReporter::OnceReporter(std::function<void(const std::string&)> sink) : sink_(std::move(sink)) {}

void OnceReporter::report(const std::string& problem) { report(identityHash(problem), problem); }

void OnceReporter::report(std::uint64_t identity, const std::string& problem) {
  MutexLock lock(mutex_);
  const auto end = reported_.begin() + static_cast<std::ptrdiff_t>(count_);
  if (count_ == kMost || std::find(reported_.begin(), end, identity) != end) return;
  reported_[count_++] = identity;
  sink_(count_ < kMost ? problem : problem + "; no more is reported from here on");
}

}  // namespace zelta::platform
