#include "logging/text_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include "tests/doubles/clock/simulated_clock.h"
#include "tests/support/log_files.h"
#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

namespace fs = std::filesystem;
using test::fileContent;
using test::fileLines;
using Lines = std::vector<std::string>;

const std::string kEnd = test::kLineEnd;

class TextFileTest : public ::testing::Test {
 protected:
  test::TempFolder folder_;
  const std::string path_ = folder_.file("log.txt");
  test::SimulatedClock clock_;
  test::ScopedClock scope_{clock_};
};

TEST_F(TextFileTest, EmptyPathIsRefusedWithItsText) {
  try {
    TextFile file("");
    FAIL();
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "File path is empty");
  }
}

TEST_F(TextFileTest, DestructorIsVirtual) { EXPECT_TRUE(std::has_virtual_destructor_v<TextFile>); }

TEST_F(TextFileTest, LineIsInTheFileWhenTheCallReturns) {
  TextFile file(path_);
  EXPECT_EQ(fileContent(path_), "");
  file.writeLine("first");
  EXPECT_EQ(fileContent(path_), "first" + kEnd);
  file.writeLine("second");
  EXPECT_EQ(fileContent(path_), "first" + kEnd + "second" + kEnd);
  file.writeLine("");
  EXPECT_EQ(fileContent(path_), "first" + kEnd + "second" + kEnd + kEnd);
}

TEST_F(TextFileTest, OlderFileOfTheNameIsReplaced) {
  std::ofstream(path_) << "older content, longer than the new one\n";
  TextFile file(path_);
  file.writeLine("new");
  EXPECT_EQ(fileContent(path_), "new" + kEnd);
}

TEST_F(TextFileTest, CreationTimeIsTheClocksAtConstruction) {
  TextFile file(path_);
  clock_.advance(5'000);
  EXPECT_EQ(file.creationTime(), 1'709'647'629'042);
}

TEST_F(TextFileTest, LinesOfTwoThreadsStayWhole) {
  constexpr int kLines = 2'000;
  TextFile file(path_);
  const auto write = [&](char letter) {
    for (int i = 0; i < kLines; ++i) file.writeLine(std::string(100, letter));
  };
  std::thread other(write, 'b');
  write('a');
  other.join();
  int a = 0;
  int b = 0;
  for (const std::string& line : fileLines(path_)) {
    if (line == std::string(100, 'a')) ++a;
    if (line == std::string(100, 'b')) ++b;
  }
  EXPECT_EQ(a, kLines);
  EXPECT_EQ(b, kLines);
  EXPECT_EQ(fs::file_size(path_), 2u * kLines * (100 + kEnd.size()));
}

TEST_F(TextFileTest, BackslashesAndOtherAlphabetsAreFoldersAndNames) {
  const fs::path inner = folder_.path() / fs::u8path("\xC3\x84rzte") / "logs";
  fs::create_directories(inner);
  TextFile file(folder_.path().u8string() + "\\\xC3\x84rzte\\logs\\\xD0\x9A.txt");
  file.writeLine("text");
  EXPECT_EQ(fileLines(inner / fs::u8path("\xD0\x9A.txt")), Lines{"text"});
}

TEST_F(TextFileTest, MissingFolderLosesLinesUntilItIsThere) {
  const fs::path inner = folder_.path() / "missing";
  TextFile file((inner / "log.txt").string());
  file.writeLine("heading");
  file.writeLine("lost");
  EXPECT_FALSE(fs::exists(inner));
  fs::create_directory(inner);
  file.writeLine("kept");
  file.writeLine("and kept");
  EXPECT_EQ(fileLines(inner / "log.txt"), (Lines{"heading", "kept", "and kept"}));
}

TEST_F(TextFileTest, FolderThatIsAFileLosesLines) {
  std::ofstream(folder_.file("folder")) << "x";
  TextFile file(folder_.file("folder/log.txt"));
  file.writeLine("heading");
  fs::remove(folder_.file("folder"));
  fs::create_directory(folder_.file("folder"));
  file.writeLine("kept");
  EXPECT_EQ(fileLines(folder_.file("folder/log.txt")), (Lines{"heading", "kept"}));
}

TEST_F(TextFileTest, FirstOpeningReplacesAnOlderFileHoweverLateItComes) {
  const fs::path inner = folder_.path() / "missing";
  TextFile file((inner / "log.txt").string());
  file.writeLine("heading");
  fs::create_directory(inner);
  std::ofstream(inner / "log.txt") << "another's\n";
  file.writeLine("kept");
  EXPECT_EQ(fileLines(inner / "log.txt"), (Lines{"heading", "kept"}));
}

TEST_F(TextFileTest, FileEmptiedMeanwhileBeginsWithItsHeading) {
  TextFile file(path_);
  file.writeLine("heading");
  file.writeLine("gone");
  fs::resize_file(path_, 0);
  clock_.advance(1'000);
  file.writeLine("kept");
  EXPECT_EQ(fileLines(path_), (Lines{"heading", "kept"}));
}

TEST_F(TextFileTest, ClockSetBackDoesNotKeepAFileFromBeingLookedAt) {
  TextFile file(path_);
  file.writeLine("heading");
  clock_.advance(-86'400'000);
  fs::resize_file(path_, 0);
  file.writeLine("kept");
  EXPECT_EQ(fileLines(path_), (Lines{"heading", "kept"}));
}

TEST_F(TextFileTest, FileThatIsThereIsLeftAlone) {
  TextFile file(path_);
  file.writeLine("heading");
  clock_.advance(10'000);
  file.writeLine("one");
  clock_.advance(10'000);
  file.writeLine("two");
  EXPECT_EQ(fileLines(path_), (Lines{"heading", "one", "two"}));
}

TEST_F(TextFileTest, LinesOfTwoObjectsOnOneFileStayWhole) {
  // As of two processes that have made the same name in the same millisecond.
  TextFile first(path_);
  TextFile second(path_);
  first.writeLine("first");
  second.writeLine("second, longer");
  first.writeLine("third");
  EXPECT_EQ(fileLines(path_), (Lines{"first", "second, longer", "third"}));
}

}  // namespace
}  // namespace zelta
