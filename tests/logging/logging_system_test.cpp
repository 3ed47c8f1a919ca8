// The logging library on the system's own clock, events and registry.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "logging/registry_change_notifier.h"
#include "tests/doubles/logging/recording_logger.h"
#include "tests/doubles/registry/counting_registry.h"
#include "tests/support/logging_ports.h"
#include "tests/support/own_registry.h"

namespace zelta::logging {
namespace {

constexpr char kKey[] = "SOFTWARE\\Vornhalt\\ZeltaAgent";

TEST(LoggingSystemTest, ChangesOfTheRegistry_ReachTheNotifiersCallback) {
  test::OwnRegistry own;
  test::CountingRegistry registry;
  test::RecordingLogger logger;
  test::RecordingLogger received;
  const auto make = [&] {
    return std::make_unique<RegistryChangeNotifier>(
        kKey, "Text", [&](const std::string& text) { received.log(text, 0, 0); }, &logger);
  };
  EXPECT_THROW(make(), std::runtime_error) << "there is no key";
  own.setText(test::kAgentKey, u"Text", u"one");
  const auto notifier = make();
  EXPECT_EQ(received.lines().back().message, "one");
  registry.awaitNotifications(1);
  own.setText(test::kAgentKey, u"Text", u"sm\u00F8r");
  received.awaitLines(2);
  EXPECT_EQ(received.lines().back().message, "sm\xC3\xB8r");
  registry.awaitNotifications(2);
  own.setDword(test::kAgentKey, u"Text", 7);
  logger.awaitLines(1);
  EXPECT_EQ(logger.lines().back().message, "Unexpected value type \"4\" from registry value: Text");
  registry.awaitNotifications(3);
  own.setText(test::kAgentKey, u"Text", u"two");
  received.awaitLines(3);
  EXPECT_EQ(received.lines().back().message, "two");
}

}  // namespace
}  // namespace zelta::logging
