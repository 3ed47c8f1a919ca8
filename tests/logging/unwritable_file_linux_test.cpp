// Files on a full disk, in a folder that may not be written to, and who may read them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <optional>
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

constexpr fs::perms kExpected =
    fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read;

TEST(FileMode, NewFileAndOneThatWasRemoved_AreForOwnerAndGroupOnly) {
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

// Lets this thread open existing files, but gives it no descriptor for a new file.
void haveNoDescriptorForNewFiles() {
  constexpr std::uint32_t kFlags = offsetof(seccomp_data, args) + 2 * sizeof(std::uint64_t);
  std::array<sock_filter, 6> steps = {{
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFlags),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_EXCL, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EMFILE),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  }};
  const sock_fprog program{static_cast<unsigned short>(steps.size()), steps.data()};
  ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

TEST(FileMode, FileThatCannotBeMadeForTheMoment_IsMadeWithItsModeLater) {
  const test::TempFolder folder;
  const fs::path path = folder.path() / "log.txt";
  test::SimulatedClock clock;
  const test::ScopedClock scope(clock);
  std::optional<TextFile> file;
  const auto withoutDescriptor = [](const auto& act) {
    std::thread([&] {
      haveNoDescriptorForNewFiles();
      act();
    }).join();
  };
  withoutDescriptor([&] {
    file.emplace(path.string());
    file->writeLine("heading");
    file->writeLine("lost");
  });
  EXPECT_FALSE(fs::exists(path));
  file->writeLine("kept");
  EXPECT_EQ(fs::status(path).permissions(), kExpected);
  EXPECT_EQ(fileLines(path), (Lines{"heading", "kept"}));

  fs::remove(path);
  clock.advance(1'000);
  withoutDescriptor([&] { file->writeLine("lost"); });
  EXPECT_FALSE(fs::exists(path));
  file->writeLine("kept, too");
  EXPECT_EQ(fs::status(path).permissions(), kExpected);
  EXPECT_EQ(fileLines(path), (Lines{"heading", "kept, too"}));
}

}  // namespace
}  // namespace zelta
