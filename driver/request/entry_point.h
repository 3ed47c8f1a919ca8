// Wraps every operation that the framework calls: opens its timed section and stops exceptions,
// which must not cross the framework's binary interface.
#pragma once

#include <exception>
#include <new>

#include "contract/status.h"
#include "diagnostics/log.h"
#include "diagnostics/timed_section.h"

namespace zelta {

// Logs the exception that is being handled and gives the status that stands for it.
[[nodiscard]] inline framework::HRESULT statusOfException(const char* operation) noexcept {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    logError(static_cast<std::uint32_t>(status::kOutOfMemory), "%s: out of memory", operation);
    return status::kOutOfMemory;
  } catch (const std::exception& failure) {
    logError(static_cast<std::uint32_t>(status::kGenFailure), "%s: %s", operation, failure.what());
    return status::kGenFailure;
  }
}

// Runs `body`, which gives the operation's status.
template <typename Body>
framework::HRESULT runEntryPoint(const char* operation, Body body) noexcept {
  const TimedSection section(operation);
  try {
    return body();
  } catch (const std::exception&) {
    return statusOfException(operation);
  }
}

}  // namespace zelta
