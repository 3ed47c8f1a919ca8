// Replaces one of the system's ports with the test's.
#pragma once

#include "platform/process/ports.h"

namespace zelta::test {

// For a scope in which no other thread begins or ends to use the port, which outlives it.
class ScopedPort {
 public:
  template <typename Port, typename Double>
  ScopedPort(Port* platform::Ports::*which, Double& port) : before_(platform::ports()) {
    platform::Ports with = before_;
    with.*which = &port;
    platform::replacePorts(with);
  }
  ~ScopedPort() { platform::replacePorts(before_); }
  ScopedPort(const ScopedPort&) = delete;
  ScopedPort& operator=(const ScopedPort&) = delete;

 private:
  const platform::Ports before_;
};

}  // namespace zelta::test
