// The notifier and the logger on the real registry.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "logging/zelta_logging.h"
#include "tests/doubles/registry/counting_registry.h"
#include "tests/support/logging_ports.h"
#include "tests/support/own_registry.h"
#include "tests/support/recording_logger.h"
#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

constexpr char kKey[] = "SOFTWARE\\Vornhalt\\ZeltaAgent";

class RealRegistryNotifierTest : public ::testing::Test {
 protected:
  RegistryChangeNotifier::Callback callback() {
    return [this](const std::string& text) { received_.log(text, 0, 0); };
  }

  test::OwnRegistry machine_;
  test::CountingRegistry registry_;
  test::RecordingLogger logger_;
  test::RecordingLogger received_;
};

TEST_F(RealRegistryNotifierTest, ChangesAreDelivered) {
  machine_.setText(test::kAgentKey, u"Text", u"one");
  const RegistryChangeNotifier notifier(kKey, "Text", callback(), &logger_);
  received_.awaitLines(1);
  EXPECT_EQ(received_.lines()[0].message, "one");
  registry_.awaitNotifications(1);
  machine_.setText(test::kAgentKey, u"Text", u"sm\u00F8r");
  received_.awaitLines(2);
  EXPECT_EQ(received_.lines()[1].message, "sm\xC3\xB8r");
  registry_.awaitNotifications(2);
  machine_.createKey(std::u16string(test::kAgentKey) + u"\\Below");
  received_.awaitLines(3);
  EXPECT_EQ(received_.lines()[2].message, "sm\xC3\xB8r");
  EXPECT_TRUE(logger_.lines().empty());
}

TEST_F(RealRegistryNotifierTest, ValueThatGoesAndComesBack) {
  machine_.setText(test::kAgentKey, u"Text", u"one");
  const RegistryChangeNotifier notifier(kKey, "Text", callback(), &logger_);
  registry_.awaitNotifications(1);
  machine_.deleteValue(test::kAgentKey, u"Text");
  logger_.awaitLines(1);
  EXPECT_EQ(logger_.lines()[0].message, "Failed to query (2) registry value: Text");
  registry_.awaitNotifications(2);
  machine_.setDword(test::kAgentKey, u"Text", 7);
  logger_.awaitLines(2);
  EXPECT_EQ(logger_.lines()[1].message, "Unexpected value type \"4\" from registry value: Text");
  registry_.awaitNotifications(3);
  machine_.setText(test::kAgentKey, u"Text", u"two");
  received_.awaitLines(2);
  EXPECT_EQ(received_.lines()[1].message, "two");
}

TEST_F(RealRegistryNotifierTest, MissingKeyIsRefused) {
  try {
    const RegistryChangeNotifier notifier(kKey, "Text", callback(), &logger_);
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "Failed to open registry key: SOFTWARE\\Vornhalt\\ZeltaAgent");
  }
}

TEST_F(RealRegistryNotifierTest, RotationTimeIsFollowedWithoutARestart) {
  machine_.setText(test::kAgentKey, test::kRotationTime, u"60");
  const test::TempFolder folder;
  test::SimulatedClock clock;
  test::ScopedClock scope(clock);
  const logging::FileLoggerWindows logger(0, 3, "00000000-0000-0000-0000-000000000000",
                                          folder.file("tool"), 0);
  EXPECT_EQ(logger.rotationPeriod(), 3'600'000);
  registry_.awaitNotifications(1);
  machine_.setText(test::kAgentKey, test::kRotationTime, u"7.5");
  clock.awaitDeadline(test::kMarchTime + 420'000 * platform::kClockUnitsPerMillisecond);
  EXPECT_EQ(logger.rotationPeriod(), 420'000);
}

}  // namespace
}  // namespace zelta
