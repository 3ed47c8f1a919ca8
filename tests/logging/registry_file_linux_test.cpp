// The notifier and the logger on the real registry file.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "logging/zelta_logging.h"
#include "tests/doubles/clock/simulated_clock.h"
#include "tests/support/log_files.h"
#include "tests/support/recording_logger.h"
#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

using Texts = std::vector<std::string>;

class RegistryFileTest : public ::testing::Test {
 protected:
  void write(const std::string& path, const std::string& value) {
    std::ofstream file(path, std::ios::trunc);
    file << "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Vornhalt\\"
            "ZeltaAgent]\n"
         << value << "\n";
  }
  void replace(const std::string& value) {
    write(path_ + ".new", value);
    ASSERT_EQ(std::rename((path_ + ".new").c_str(), path_.c_str()), 0);
  }

  test::TempFolder folder_;
  const std::string path_ = folder_.file("registry.reg");
  test::ScopedVariable variable_{"ZELTA_REGISTRY", path_};
};

TEST_F(RegistryFileTest, ChangesOfTheFileAreDelivered) {
  replace("\"Text\"=\"one\"");
  test::RecordingLogger logger;
  test::RecordingLogger received;
  const RegistryChangeNotifier notifier(
      "SOFTWARE\\Vornhalt\\ZeltaAgent", "Text",
      [&](const std::string& text) { received.log(text, 0, 0); }, &logger);
  received.awaitLines(1);
  EXPECT_EQ(received.lines()[0].message, "one");
  replace("\"Text\"=\"two\"");
  received.awaitLines(2);
  EXPECT_EQ(received.lines()[1].message, "two");
  write(path_, "\"Text\"=\"three\"");
  // Writing in place may be seen half done, which is a missing value.
  for (std::size_t count = 3; received.lines().back().message != "three"; ++count) {
    received.awaitLines(count);
  }
}

TEST_F(RegistryFileTest, RotationTimeIsFollowedWithoutARestart) {
  replace("\"ZeltaLogRotationTime\"=\"60\"");
  std::filesystem::create_directory(folder_.file("logs"));
  test::SimulatedClock clock;
  test::ScopedClock scope(clock);
  const logging::FileLoggerWindows logger(0, 3, "00000000-0000-0000-0000-000000000000",
                                          folder_.file("logs/tool"), 0);
  EXPECT_EQ(logger.rotationPeriod(), 3'600'000);
  replace("\"ZeltaLogRotationTime\"=\"7.5\"");
  clock.awaitDeadline(test::kMarchTime + 420'000 * platform::kClockUnitsPerMillisecond);
  EXPECT_EQ(logger.rotationPeriod(), 420'000);
}

}  // namespace
}  // namespace zelta
