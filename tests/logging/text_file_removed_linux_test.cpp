// A file that is removed while it is open, which this system allows.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "logging/text_file.h"
#include "tests/doubles/clock/simulated_clock.h"
#include "tests/support/log_files.h"
#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

namespace fs = std::filesystem;
using test::fileLines;
using Lines = std::vector<std::string>;

class RemovedTextFile : public ::testing::Test {
 protected:
  test::TempFolder folder_;
  const std::string path_ = folder_.file("log.txt");
  test::SimulatedClock clock_;
  test::ScopedClock scope_{clock_};
};

TEST_F(RemovedTextFile, IsMadeAnewWithItsHeading) {
  TextFile file(path_);
  file.writeLine("heading");
  file.writeLine("gone with the file");
  fs::remove(path_);
  clock_.advance(999);
  file.writeLine("not looked for yet");
  EXPECT_FALSE(fs::exists(path_));
  clock_.advance(1);
  file.writeLine("kept");
  file.writeLine("and kept");
  EXPECT_EQ(fileLines(path_), (Lines{"heading", "kept", "and kept"}));
}

TEST_F(RemovedTextFile, FolderRemovedMeanwhileIsAwaited) {
  const fs::path inner = folder_.path() / "inner";
  fs::create_directory(inner);
  TextFile file((inner / "log.txt").string());
  file.writeLine("heading");
  fs::remove_all(inner);
  clock_.advance(1'000);
  file.writeLine("lost");
  EXPECT_FALSE(fs::exists(inner));
  fs::create_directory(inner);
  file.writeLine("kept");
  EXPECT_EQ(fileLines(inner / "log.txt"), (Lines{"heading", "kept"}));
}

TEST_F(RemovedTextFile, ClockSetBackDoesNotKeepItFromBeingLookedFor) {
  TextFile file(path_);
  file.writeLine("heading");
  clock_.advance(-86'400'000);
  fs::remove(path_);
  file.writeLine("kept");
  EXPECT_EQ(fileLines(path_), (Lines{"heading", "kept"}));
}

}  // namespace
}  // namespace zelta
