// Memory that runs out on command. A program that links `zelta_scarce_memory` has its allocations
// pass through here.
#pragma once

#include <cstddef>

namespace zelta::test {

// From now on some of this thread's allocations fail, until the scope ends.
class ScarceMemory {
 public:
  // All behind the next `allocations` ones.
  explicit ScarceMemory(int allocations);
  // Those of exactly `size` bytes.
  static ScarceMemory ofSize(std::size_t size);
  ~ScarceMemory();
  ScarceMemory(const ScarceMemory&) = delete;
  ScarceMemory& operator=(const ScarceMemory&) = delete;

  // Whether an allocation has failed.
  bool ranOut() const;

 private:
  ScarceMemory() = default;
};

}  // namespace zelta::test
