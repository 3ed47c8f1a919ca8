#include "driver/request/module_reference.h"

#include <exception>

#include "diagnostics/log_output.h"

namespace zelta {

void ModuleReference::unlock() noexcept {
  std::uint32_t count = count_.load(std::memory_order_acquire);
  do {
    // If it fails, the logger goes on and keeps the module mapped.
    if (count == 1) static_cast<void>(endLogging());
  } while (!count_.compare_exchange_weak(count, count - 1, std::memory_order_acq_rel,
                                         std::memory_order_acquire));
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
