// The driver's logger on the real registry, whose values change while it runs.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "diagnostics/log.h"
#include "diagnostics/log_output.h"
#include "platform/process/ports.h"
#include "tests/doubles/registry/counting_registry.h"
#include "tests/support/log_files.h"
#include "tests/support/logging_ports.h"
#include "tests/support/own_registry.h"
#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

class RealRegistryTest : public ::testing::Test {
 protected:
  RealRegistryTest() : before_(platform::ports()) {
    fs::create_directories(logs());
    folders_.programDataPath = folder_.path().u16string();
    platform::Ports with = before_;
    with.folders = &folders_;
    platform::replacePorts(with);
    machine_.setText(test::kAgentKey, test::kRotationTime, u"0");
  }
  ~RealRegistryTest() override {
    shutDownLogging();
    platform::replacePorts(before_);
  }

  fs::path logs() const { return folder_.path() / "Vornhalt" / "ZeltaAgent" / "logs"; }
  Texts lines() const { return test::summaries(test::recordsIn(logs())); }

  test::TempFolder folder_;
  test::FakeFolders folders_;
  test::OwnRegistry machine_;
  const platform::Ports before_;
};

TEST_F(RealRegistryTest, PolicyIsFollowedWithinTwoLooks) {
  test::CountingRegistry registry;
  machine_.setDword(test::kPolicyDefaults, test::kFilterMode, 0);
  machine_.setDword(test::kPolicy, test::kFilterMode, 1);
  logInfo("dropped");
  logError(1, "written");
  machine_.setDword(test::kPolicy, test::kFilterMode, 3);
  registry.awaitLooks(2);  // the second one begins when the first one's result is in force
  logDebug("written");
  machine_.deleteValue(test::kPolicy, test::kFilterMode);
  registry.awaitLooks(4);  // each is of two keys now
  logError(2, "dropped by the defaults");
  machine_.deleteKey(test::kPolicyDefaults);
  registry.awaitLooks(4);
  logInfo("written");
  logDebug("dropped");
  shutDownLogging();
  EXPECT_EQ(lines(), (Texts{"<ERROR> 1 written", "<DEBUG> 0 written", "<INFO> 0 written"}));
}

TEST_F(RealRegistryTest, RotationTimeIsFollowed) {
  test::CountingRegistry registry;
  test::SimulatedClock clock;
  const test::ScopedClock scope(clock);
  logInfo("first");
  registry.awaitNotifications(1);
  machine_.setText(test::kAgentKey, test::kRotationTime, u"60");
  registry.awaitNotifications(2);
  machine_.setText(test::kAgentKey, test::kRotationTime, u"soon");
  registry.awaitNotifications(3);
  machine_.setText(test::kAgentKey, test::kRotationTime, u"1");
  clock.awaitDeadline(test::kMarchTime + 60'000 * platform::kClockUnitsPerMillisecond);
  clock.advance(60'000);
  clock.awaitDeadline(test::kMarchTime + 120'000 * platform::kClockUnitsPerMillisecond);
  logInfo("second");
  shutDownLogging();
  EXPECT_EQ(test::filesIn(logs()).size(), 2u);
  EXPECT_EQ(lines(),
            (Texts{"<INFO> 0 first", "<INFO> 0 Setting log rotation time to: 60 mins",
                   "<ERROR> -500 Invalid log rotation time obtained (\"soon\"). Conversion "
                   "failed. Continue to use existing rotation time.",
                   "<INFO> 0 Setting log rotation time to: 1 mins", "<INFO> 0 second"}));
}

}  // namespace
}  // namespace zelta
