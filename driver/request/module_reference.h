// Keeps the module loaded: counts objects and the host's locks. Releasing the last one ends the
// process's logger, so that a host may unload the module without asking.
//
// Any thread, but not under the operating system's loader lock. The count is a constant-initialised
// number, so there is nothing to tear down if the process ends with threads inside.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/sync/sync.h"

namespace zelta {

// A member of every object that keeps the module loaded; `lock` and `unlock` do the same. Must be
// the first member if the object's destructor may log: a log call after the last reference makes a
// logger that nobody ends.
class ModuleReference {
 public:
  ModuleReference() { lock(); }
  ~ModuleReference() { unlock(); }
  ModuleReference(const ModuleReference&) = delete;
  ModuleReference& operator=(const ModuleReference&) = delete;

  static void lock() { count_.fetch_add(1, std::memory_order_relaxed); }
  // The last reference counts until the logger has ended; until then `any` is true.
  static void unlock() noexcept ZELTA_EXCLUDES(unloadMutex());
  static bool any() { return count_.load(std::memory_order_acquire) != 0; }
  // Held while the logger is ended, and by whoever asks whether there is one to end: two must not
  // end it at once, and a question must not make a new one.
  static platform::Mutex& unloadMutex();

 private:
  static inline std::atomic<std::uint32_t> count_{0};
};

// Ends the logger and its threads here, not in a global destructor, which would run under the
// system's loader lock: an ending thread needs that lock, and joining it would deadlock. A later
// log call makes a new logger. False if the threads may still run, so that the module has to stay.
[[nodiscard]] bool endLogging() noexcept;

}  // namespace zelta
