#include "driver/request/module_reference.h"

#include <exception>

#include "diagnostics/log_output.h"
#include "platform/process/never_destroyed.h"

namespace zelta {

platform::Mutex& ModuleReference::unloadMutex() {
  static platform::NeverDestroyed<platform::Mutex> mutex;
  return mutex.get();
}

void ModuleReference::unlock() noexcept {
  const platform::MutexLock lock(unloadMutex());
  // If it fails, the logger goes on and keeps the module mapped.
  if (count_.load(std::memory_order_acquire) == 1) static_cast<void>(endLogging());
  count_.fetch_sub(1, std::memory_order_acq_rel);
}

bool endLogging() noexcept {
  try {
    shutDownLogging();
  } catch (const std::exception&) {
    return false;
  }
  return true;
}

}  // namespace zelta
