// The logging library on the system's own clock, events and registry.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "logging/zelta_logging.h"
#include "tests/doubles/registry/counting_registry.h"
#include "tests/support/log_files.h"
#include "tests/support/logging_ports.h"
#include "tests/support/own_registry.h"
#include "tests/support/recording_logger.h"
#include "tests/support/temp_folder.h"

namespace zelta::logging {
namespace {

constexpr char kKey[] = "SOFTWARE\\Vornhalt\\ZeltaAgent";

class LoggingSystemTest : public ::testing::Test {
 protected:
  LoggingSystemTest() { std::filesystem::create_directory(logs()); }

  std::filesystem::path logs() const { return folder_.path() / "logs"; }
  std::unique_ptr<FileLoggerWindows> makeLogger() const {
    return std::make_unique<FileLoggerWindows>(0, 2, "0f8fad5b-d9cb-469f-a165-70867728950e",
                                               folder_.file("logs/tool"), 0);
  }
  const test::TempFolder folder_;
  test::OwnRegistry own_;
  test::CountingRegistry registry_;
};

TEST_F(LoggingSystemTest, ChangesOfTheRegistry_ReachTheNotifiersCallback) {
  test::RecordingLogger logger;
  test::RecordingLogger received;
  const auto make = [&] {
    return std::make_unique<RegistryChangeNotifier>(
        kKey, "Text", [&](const std::string& text) { received.log(text, 0, 0); }, &logger);
  };
  EXPECT_THROW(make(), std::runtime_error) << "there is no key";
  own_.setText(test::kAgentKey, u"Text", u"one");
  const auto notifier = make();
  EXPECT_EQ(received.lines().back().message, "one");
  registry_.awaitNotifications(1);
  own_.setText(test::kAgentKey, u"Text", u"sm\u00F8r");
  received.awaitLines(2);
  EXPECT_EQ(received.lines().back().message, "sm\xC3\xB8r");
  registry_.awaitNotifications(2);
  own_.setDword(test::kAgentKey, u"Text", 7);
  logger.awaitLines(1);
  EXPECT_EQ(logger.lines().back().message, "Unexpected value type \"4\" from registry value: Text");
  registry_.awaitNotifications(3);
  own_.setText(test::kAgentKey, u"Text", u"two");
  received.awaitLines(3);
  EXPECT_EQ(received.lines().back().message, "two");
}

TEST_F(LoggingSystemTest, ChangedRotationTime_IsFollowedWithoutARestart) {
  own_.setText(test::kAgentKey, test::kRotationTime, u"60");
  test::SimulatedClock clock;
  test::ScopedClock scope(clock);
  const auto logger = makeLogger();
  EXPECT_EQ(logger->rotationPeriod(), 3'600'000);
  registry_.awaitNotifications(1);
  own_.setText(test::kAgentKey, test::kRotationTime, u"7.5");
  clock.awaitDeadline(test::kMarchTime + 420'000 * platform::kClockUnitsPerMillisecond);
  EXPECT_EQ(logger->rotationPeriod(), 420'000);
}

}  // namespace
}  // namespace zelta::logging
