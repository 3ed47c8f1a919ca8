#include <gtest/gtest.h>
#include <sys/fsuid.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "logging/file_logger.h"
#include "logging/text_file.h"
#include "tests/doubles/clock/simulated_clock.h"
#include "tests/support/log_files.h"
#include "tests/support/small_disk.h"
#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

namespace fs = std::filesystem;
using test::fileLines;

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
    int number = 0;
    for (; number < 400; ++number) file.writeLine(numberedLine(number));
    const std::vector<std::string> before = fileLines(disk / "log.txt");
    ASSERT_GT(before.size(), 50u);
    ASSERT_LT(before.size(), 400u) << "the disk was not full";
    fs::remove(disk / "other");
    for (; number < 410; ++number) file.writeLine(numberedLine(number));
    const std::vector<std::string> after = fileLines(disk / "log.txt");
    ASSERT_EQ(after.size(), before.size() + 10);
    for (std::size_t i = 0; i < before.size(); ++i) {
      EXPECT_EQ(after[i], numberedLine(static_cast<int>(i)));
    }
    for (int i = 0; i < 10; ++i) {
      EXPECT_EQ(after[before.size() + static_cast<std::size_t>(i)], numberedLine(400 + i));
    }
  });
}

TEST(FullDisk, ShorterLinesAreWrittenWhereALongOneDidNotFit) {
  test::onSmallDisk(kDisk, [](const fs::path& disk) {
    TextFile file((disk / "log.txt").string());
    file.writeLine("heading");
    file.writeLine(std::string(2 * kDisk, 'x'));
    EXPECT_EQ(fileLines(disk / "log.txt"), std::vector<std::string>{"heading"});
    file.writeLine("short");
    EXPECT_EQ(fileLines(disk / "log.txt"), (std::vector<std::string>{"heading", "short"}));
  });
}

TEST(FullDisk, FileMadeOnAFullDiskGetsItsHeadingLater) {
  test::onSmallDisk(kDisk, [](const fs::path& disk) {
    test::fillDisk(disk / "other");
    TextFile file((disk / "log.txt").string());
    file.writeLine("heading");
    file.writeLine("lost");
    fs::remove(disk / "other");
    file.writeLine("kept");
    EXPECT_EQ(fileLines(disk / "log.txt"), (std::vector<std::string>{"heading", "kept"}));
  });
}

TEST(FullDisk, LoggerGoesOn) {
  test::onSmallDisk(kDisk, [](const fs::path& disk) {
    logging::FileLogger logger(0, 2, "00000000-0000-0000-0000-000000000000", nullptr,
                               (disk / "zelta_vsc").string());
    logger.log("before", 2, 0);
    test::fillDisk(disk / "other");
    for (int i = 0; i < 200; ++i) logger.log(std::string(150, 'x'), 2, 0);
    fs::remove(disk / "other");
    logger.log("after", 2, 0);
    ASSERT_EQ(test::filesIn(disk).size(), 1u);
    const auto records = test::recordsOf(test::filesIn(disk)[0]);
    ASSERT_LT(records.size(), 200u);
    EXPECT_EQ(records.front().message, "before");
    EXPECT_EQ(records.back().message, "after");
  });
}

constexpr uid_t kNobody = 65534;

TEST(NoPermission, LinesAreLostUntilItIsGiven) {
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
  EXPECT_EQ(fileLines(folder.file("log.txt")), (std::vector<std::string>{"heading", "kept"}));
}

}  // namespace
}  // namespace zelta
