// Reports a driver's violations of the framework's rules: a request completed twice, an operation
// that this host does not have. Shared by every framework object, so that an object that the driver
// keeps for too long can still report.
#pragma once

#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "host/host_status.h"

namespace zelta::host {

class DriverErrors {
 public:
  // May throw std::bad_alloc, nothing else.
  using Hook = std::function<void(const std::string&)>;

  explicit DriverErrors(Hook hook) : hook_(std::move(hook)) {}

  // Reports on the calling thread, often one of the driver's with its locks held. The text is the
  // three together. An error is lost if there is no memory to report it.
  void report(const char* text, const char* more = "", const char* end = "") const noexcept {
    if (!hook_) return;
    try {
      hook_(std::string(text) + more + end);
    } catch (const std::bad_alloc&) {
    }
  }

  // For a slot that this driver does not use: reports the call and returns the status to answer
  // with.
  framework::HRESULT notImplemented(const char* operation) const noexcept {
    report("driver called ", operation, ", which this host does not implement");
    return kNotImplemented;
  }

 private:
  const Hook hook_;
};

using SharedDriverErrors = std::shared_ptr<const DriverErrors>;

}  // namespace zelta::host
