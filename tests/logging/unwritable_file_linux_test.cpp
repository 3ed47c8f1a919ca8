// Files on a full disk, in a folder that may not be written to, and who may read them.
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "logging/file_logger.h"
#include "tests/doubles/clock/simulated_clock.h"
#include "tests/support/log_files.h"
#include "tests/support/small_disk.h"
#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

namespace fs = std::filesystem;
using test::fileLines;
using Lines = std::vector<std::string>;

constexpr std::size_t kDisk = 64 * 1024;
constexpr std::size_t kLineLength = 299;  // divides no page

std::string numberedLine(int number) {
  std::string line = std::to_string(number) + ' ';
  line.resize(kLineLength, 'x');
  return line;
}

TEST(FullDisk, LinesStayWholeAndGoOnWhenThereIsSpace) {
  test::onSmallDisk(kDisk, [](const fs::path& disk) {
    std::ofstream(disk / "other") << std::string(kDisk / 2, 'x');
    TextFile file((disk / "log.txt").string());
    Lines expected;
    int number = 0;
    for (; number < 400; ++number) file.writeLine(numberedLine(number));
    const std::size_t before = fileLines(disk / "log.txt").size();
    ASSERT_GT(before, 50u);
    ASSERT_LT(before, 400u) << "the disk was not full";
    fs::remove(disk / "other");
    for (; number < 410; ++number) file.writeLine(numberedLine(number));
    for (int i = 0; i < static_cast<int>(before); ++i) expected.push_back(numberedLine(i));
    for (int i = 400; i < 410; ++i) expected.push_back(numberedLine(i));
    EXPECT_EQ(fileLines(disk / "log.txt"), expected);
  });
}

TEST(FullDisk, LineThatDoesNotFit_KeepsNoShorterOneOut) {
  test::onSmallDisk(kDisk, [](const fs::path& disk) {
    TextFile file((disk / "log.txt").string());
    file.writeLine("heading");
    file.writeLine(std::string(2 * kDisk, 'x'));
    EXPECT_EQ(fileLines(disk / "log.txt"), Lines{"heading"});
    file.writeLine("short");
    EXPECT_EQ(fileLines(disk / "log.txt"), (Lines{"heading", "short"}));
  });
}

TEST(FullDisk, FileMadeOnAFullDisk_GetsItsHeadingLater) {
  test::onSmallDisk(kDisk, [](const fs::path& disk) {
    test::fillDisk(disk / "other");
    TextFile file((disk / "log.txt").string());
    file.writeLine("heading");
    file.writeLine("lost");
    fs::remove(disk / "other");
    file.writeLine("kept");
    EXPECT_EQ(fileLines(disk / "log.txt"), (Lines{"heading", "kept"}));
  });
}

constexpr uid_t kNobody = 65534;

TEST(NoPermission, LosesLinesUntilItIsGiven) {
  const test::TempFolder folder;
  fs::permissions(folder.path(), fs::perms::owner_all);
  // The identity for files is the thread's own.
  std::thread([&] {
    setfsuid(kNobody);
    TextFile file(folder.file("log.txt"));
    file.writeLine("heading");
    file.writeLine("lost");
    EXPECT_EQ(setfsuid(0), static_cast<int>(kNobody));
    EXPECT_FALSE(fs::exists(folder.file("log.txt")));
    fs::permissions(folder.path(), fs::perms::all);
    setfsuid(kNobody);
    file.writeLine("kept");
    setfsuid(0);
  }).join();
  EXPECT_EQ(fileLines(folder.file("log.txt")), (Lines{"heading", "kept"}));
}

TEST(FileMode, NewFileAndOneThatWasRemoved_AreForOwnerAndGroupOnly) {
  constexpr fs::perms kExpected =
      fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read;
  const test::TempFolder folder;
  test::SimulatedClock clock;
  const test::ScopedClock scope(clock);
  const mode_t before = umask(0);
  logging::FileLogger logger(0, 2, "session", nullptr, folder.file("log"));
  const fs::path file = test::filesIn(folder.path()).at(0);
  EXPECT_EQ(fs::status(file).permissions(), kExpected);
  fs::remove(file);
  clock.advance(1'000);
  logger.log("made again", 2, 0);
  EXPECT_EQ(fs::status(file).permissions(), kExpected);
  umask(before);
}

}  // namespace
}  // namespace zelta
