// The driver's logger on the real system: registry file, clock, a full disk.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "diagnostics/log.h"
#include "diagnostics/log_output.h"
#include "tests/doubles/registry/counting_registry.h"
#include "tests/support/log_files.h"
#include "tests/support/small_disk.h"
#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

namespace fs = std::filesystem;

constexpr char kSession[] = "0f8fad5b-d9cb-469f-a165-70867728950e";

class RealLoggingTest : public ::testing::Test {
 protected:
  RealLoggingTest() { fs::create_directories(logs()); }
  ~RealLoggingTest() override { shutDownLogging(); }

  fs::path logs() const { return folder_.path() / "Vornhalt" / "ZeltaAgent" / "logs"; }
  void writeRegistry(int mode) {
    std::ofstream(folder_.file("new"))
        << "Windows Registry Editor Version 5.00\n\n"
           "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Policies\\Vornhalt\\Zelta\\zelta_admin]\n"
           "\"zelta.event_filter_mode\"=dword:0000000"
        << mode
        << "\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Vornhalt\\ZeltaAgent]\n"
           "\"ZeltaLogRotationTime\"=\"0\"\n";
    fs::rename(folder_.file("new"), folder_.file("registry.reg"));
  }

  test::TempFolder folder_;
  test::ScopedVariable data_{"ZELTA_PROGRAM_DATA", folder_.path().string()};
  test::ScopedVariable registry_{"ZELTA_REGISTRY", folder_.file("registry.reg")};
};

TEST_F(RealLoggingTest, PolicyOfTheRegistryFileIsFollowedWithinTwoLooks) {
  test::CountingRegistry registry;
  writeRegistry(1);
  logInfo("dropped");
  logError(1, "written");
  writeRegistry(3);
  registry.awaitLooks(2);  // the second one begins when the first one's result is in force
  logDebug("written");
  writeRegistry(2);
  registry.awaitLooks(2);
  logDebug("dropped");
  shutDownLogging();
  EXPECT_EQ(test::summaries(test::recordsIn(logs())),
            (std::vector<std::string>{"<ERROR> 1 written", "<DEBUG> 0 written"}));
}

TEST_F(RealLoggingTest, FullDiskLosesLinesAndNothingElse) {
  writeRegistry(2);
  test::onSmallDisk(64 * 1024, [](const fs::path& disk) {
    const test::ScopedVariable data("ZELTA_PROGRAM_DATA", disk.string());
    const fs::path folder = disk / "Vornhalt" / "ZeltaAgent" / "logs";
    fs::create_directories(folder);
    logInfo("before");
    test::fillDisk(disk / "other");
    for (int i = 0; i < 100; ++i) logInfo("%s", std::string(200, 'x').c_str());
    setSessionLogId(kSession);
    logInfo("lost");
    fs::remove(disk / "other");
    logInfo("after");
    shutDownLogging();
    ASSERT_EQ(test::filesIn(folder).size(), 2u);
    EXPECT_EQ(test::recordsOf(test::filesIn(folder)[0])[0].message, "before");
    EXPECT_EQ(test::recordsOf(test::filesIn(folder)[1]).back().message, "after");
  });
}

}  // namespace
}  // namespace zelta
