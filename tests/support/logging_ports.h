// The ports that a logger uses, all in the test's hands.
#pragma once

#include "platform/process/ports.h"
#include "tests/doubles/clock/simulated_clock.h"
#include "tests/doubles/registry/fake_registry.h"
#include "tests/support/fake_events.h"
#include "tests/support/fake_folders.h"

namespace zelta::test {

inline constexpr char16_t kAgentKey[] = u"SOFTWARE\\Vornhalt\\ZeltaAgent";
inline constexpr char16_t kRotationTime[] = u"ZeltaLogRotationTime";
inline constexpr char16_t kPolicy[] = u"SOFTWARE\\Policies\\Vornhalt\\Zelta\\zelta_admin";
inline constexpr char16_t kPolicyDefaults[] =
    u"SOFTWARE\\Policies\\Vornhalt\\Zelta\\zelta_admin_defaults";
inline constexpr char16_t kFilterMode[] = u"zelta.event_filter_mode";

// In the system's place for its scope; must outlive everything that logs.
class LoggingPorts {
 public:
  LoggingPorts() : before_(platform::ports()) {
    platform::Ports with = before_;
    with.clock = &clock;
    with.events = &events;
    with.folders = &folders;
    with.registry = &registry;
    platform::replacePorts(with);
  }
  ~LoggingPorts() { platform::replacePorts(before_); }
  LoggingPorts(const LoggingPorts&) = delete;
  LoggingPorts& operator=(const LoggingPorts&) = delete;

  SimulatedClock clock;
  FakeEvents events;
  FakeFolders folders;
  FakeRegistry registry;

 private:
  platform::Ports before_;
};

}  // namespace zelta::test
