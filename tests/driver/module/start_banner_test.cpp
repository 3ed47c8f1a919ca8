#include "driver/module/start_banner.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "tests/doubles/logging/log_capture.h"
#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

TEST(StartBanner, WrittenTwice_IsThreeLinesThatPassEveryThreshold) {
  test::LogCapture log;
  StartBanner banner;
  banner.writeOnce();
  banner.writeOnce();
  const std::string rule(74, '-');
  const std::string build =
      std::string("Vornhalt Virtual Smartcard Reader driver build ") + buildVersion();
  EXPECT_THAT(log.records(), testing::ElementsAre(test::LogRecord{0, 0, rule, false},
                                                  test::LogRecord{0, 0, build, false},
                                                  test::LogRecord{0, 0, rule, false}));
}

TEST(BuildVersion, Text_IsTheProjectsVersionAndACommit) {
  const std::regex form(std::string(ZELTA_PROJECT_VERSION) + "\\+(unknown|[0-9a-f]{7,40})");
  EXPECT_TRUE(std::regex_match(buildVersion(), form)) << buildVersion();
}

#if !defined(_WIN32)  // the script runs on the system that builds

// Runs the build's own script for sources that are not a checkout; returns the header's content.
std::string writeHeader(const test::TempFolder& folder, const std::string& version) {
  const std::string header = folder.file("version.h");
  const std::string command = std::string(ZELTA_CMAKE) + " -DSOURCE=\"" + folder.path().string() +
                              "\" -DVERSION=" + version + " -DHEADER=\"" + header + "\" -P \"" +
                              ZELTA_BUILD_VERSION_SCRIPT + "\"";
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
  std::ifstream file(header);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(BuildVersionScript, SourcesThatAreNoCheckout_HaveAnUnknownCommit) {
  EXPECT_NE(writeHeader(test::TempFolder(), "4.5.6").find("\"4.5.6+unknown\""), std::string::npos);
}

TEST(BuildVersionScript, UnchangedVersion_LeavesTheHeaderUntouched) {
  const test::TempFolder folder;
  writeHeader(folder, "1.0.0");
  const std::string header = folder.file("version.h");
  std::filesystem::last_write_time(
      header, std::filesystem::file_time_type::clock::now() - std::chrono::hours(24));
  const auto before = std::filesystem::last_write_time(header);
  writeHeader(folder, "1.0.0");
  EXPECT_EQ(std::filesystem::last_write_time(header), before);
  writeHeader(folder, "1.0.1");
  EXPECT_NE(std::filesystem::last_write_time(header), before);
}

#endif

}  // namespace
}  // namespace zelta
