// The ports that a logger uses, all controlled by the test.
#pragma once

#include "tests/doubles/clock/simulated_clock.h"
#include "tests/doubles/ports/fake_events.h"
#include "tests/doubles/ports/fake_folders.h"
#include "tests/doubles/registry/fake_registry.h"
#include "tests/support/scoped_port.h"

namespace zelta::test {

inline constexpr char16_t kAgentKey[] = u"SOFTWARE\\Vornhalt\\ZeltaAgent";
inline constexpr char16_t kRotationTime[] = u"ZeltaLogRotationTime";
inline constexpr char16_t kPolicy[] = u"SOFTWARE\\Policies\\Vornhalt\\Zelta\\zelta_admin";
inline constexpr char16_t kPolicyDefaults[] =
    u"SOFTWARE\\Policies\\Vornhalt\\Zelta\\zelta_admin_defaults";
inline constexpr char16_t kFilterMode[] = u"zelta.event_filter_mode";

// Replaces the system's for a scope; must outlive all loggers.
class LoggingPorts {
 public:
  SimulatedClock clock;
  FakeEvents events;
  FakeFolders folders;
  FakeRegistry registry;

  // Changes a text and waits until its watcher has handled the change and subscribes anew.
  void change(const std::u16string& key, const std::u16string& name, const std::u16string& text) {
    registry.waitForCalls(FakeRegistry::Call::kNotifyChange, 1);
    const std::size_t calls = registry.calls(FakeRegistry::Call::kNotifyChange);
    registry.setText(key, name, text);
    registry.waitForCalls(FakeRegistry::Call::kNotifyChange, calls + 1);
  }
  // Whether every key and event that was opened is closed.
  bool allClosed() { return registry.openKeys() == 0 && events.open() == 0; }

 private:
  const ScopedClock clockInPlace_{clock};
  const ScopedPort eventsInPlace_{&platform::Ports::events, events};
  const ScopedPort foldersInPlace_{&platform::Ports::folders, folders};
  const ScopedPort registryInPlace_{&platform::Ports::registry, registry};
};

}  // namespace zelta::test
