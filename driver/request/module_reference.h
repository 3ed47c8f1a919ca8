// What keeps the module loaded: its objects and the host's locks, which count alike.
//
// Any thread. The count is a constant-initialised number, so there is nothing to tear down if the
// process ends with threads inside.
#pragma once

#include <atomic>
#include <cstdint>

namespace zelta {

// A member of every object that keeps the module loaded; `lock` and `unlock` do the same.
class ModuleReference {
 public:
  ModuleReference() { lock(); }
  ~ModuleReference() { unlock(); }
  ModuleReference(const ModuleReference&) = delete;
  ModuleReference& operator=(const ModuleReference&) = delete;

  static void lock() { count_.fetch_add(1, std::memory_order_relaxed); }
  static void unlock() { count_.fetch_sub(1, std::memory_order_acq_rel); }
  static bool any() { return count_.load(std::memory_order_acquire) != 0; }

 private:
  static inline std::atomic<std::uint32_t> count_{0};
};

}  // namespace zelta
