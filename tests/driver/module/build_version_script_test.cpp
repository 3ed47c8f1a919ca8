// The build's own script, which runs on the system that builds.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

using test::TempFolder;

std::string contentOf(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Runs the build's own script for a source folder.
void writeHeader(const std::string& source, const std::string& version, const std::string& header) {
  const std::string command = std::string(ZELTA_CMAKE) + " -DSOURCE=\"" + source +
                              "\" -DVERSION=" + version + " -DHEADER=\"" + header + "\" -P \"" +
                              ZELTA_BUILD_VERSION_SCRIPT + "\"";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

TEST(BuildVersionScript, OfSourcesThatAreNoCheckoutIsUnknown) {
  const TempFolder folder;
  writeHeader(folder.path().string(), "4.5.6", folder.file("version.h"));
  EXPECT_NE(contentOf(folder.file("version.h")).find("\"4.5.6+unknown\""), std::string::npos);
}

TEST(BuildVersionScript, UnchangedLeavesTheHeaderUntouched) {
  const TempFolder folder;
  const std::string header = folder.file("version.h");
  writeHeader(folder.path().string(), "1.0.0", header);
  const auto longAgo = std::filesystem::file_time_type::clock::now() - std::chrono::hours(24);
  std::filesystem::last_write_time(header, longAgo);
  const auto before = std::filesystem::last_write_time(header);
  writeHeader(folder.path().string(), "1.0.0", header);
  EXPECT_EQ(std::filesystem::last_write_time(header), before);
  writeHeader(folder.path().string(), "1.0.1", header);
  EXPECT_NE(std::filesystem::last_write_time(header), before);
}

}  // namespace
}  // namespace zelta
