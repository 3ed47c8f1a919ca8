// Reports each problem once for the life of the process, and not without end.
//
// Holds no memory of its own beyond its size. Any thread; a lock is held while the report is made,
// nothing else is locked under it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "platform/sync.h"

namespace zelta::platform {

class OnceReporter {
 public:
  // So many different problems are reported; the last one says so.
  static constexpr std::size_t kMost = 64;

  explicit OnceReporter(std::function<void(const std::string&)> sink);

  void report(const std::string& problem);
  // Told apart by `identity` and not by the text.
  void report(std::uint64_t identity, const std::string& problem);

 private:
  const std::function<void(const std::string&)> sink_;
  Mutex mutex_;
  std::array<std::uint64_t, kMost> reported_ ZELTA_GUARDED_BY(mutex_){};
  std::size_t count_ ZELTA_GUARDED_BY(mutex_) = 0;
};

}  // namespace zelta::platform
