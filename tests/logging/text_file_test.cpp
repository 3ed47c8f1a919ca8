#include "logging/text_file.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

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
  const fs::path missing_ = folder_.path() / "missing";
  test::SimulatedClock clock_;
  test::ScopedClock scope_{clock_};
};

TEST_F(TextFileTest, EmptyPath_IsRefused) {
  try {
    TextFile file("");
    FAIL();
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "File path is empty");
  }
}

TEST_F(TextFileTest, WriteLine_ReturnsWithTheLineInTheFile) {
  TextFile file(path_);
  EXPECT_EQ(fileContent(path_), "");
  file.writeLine("first");
  EXPECT_EQ(fileContent(path_), "first" + kEnd);
  file.writeLine("");
  EXPECT_EQ(fileContent(path_), "first" + kEnd + kEnd);
}

TEST_F(TextFileTest, OlderFileOfTheName_IsReplaced) {
  std::ofstream(path_) << "older content, longer than the new one\n";
  TextFile file(path_);
  file.writeLine("new");
  EXPECT_EQ(fileContent(path_), "new" + kEnd);
}

TEST_F(TextFileTest, CreationTime_IsTheClocksAtConstruction) {
  TextFile file(path_);
  clock_.advance(5'000);
  EXPECT_EQ(file.creationTime(), 1'709'647'629'042);
}

TEST_F(TextFileTest, LinesOfTwoThreads_StayWhole) {
  constexpr int kLines = 2'000;
  TextFile file(path_);
  const auto write = [&](char letter) {
    for (int i = 0; i < kLines; ++i) {
      file.writeLine(std::string(100, letter) + '/' + std::to_string(i));
    }
  };
  std::thread other(write, 'b');
  write('a');
  other.join();
  test::expectNumberedMessages(fileLines(path_), 2, kLines);
}

TEST_F(TextFileTest, LinesOfTwoObjectsOnOneFile_StayWhole) {
  // Like two processes that have made the same name in the same millisecond.
  TextFile first(path_);
  TextFile second(path_);
  first.writeLine("first");
  second.writeLine("second, longer");
  first.writeLine("third");
  EXPECT_EQ(fileLines(path_), (Lines{"first", "second, longer", "third"}));
}

TEST_F(TextFileTest, BackslashesAndOtherAlphabetsInThePath_AreFoldersAndNames) {
  const fs::path inner = folder_.path() / fs::u8path("\xC3\x84rzte") / "logs";
  fs::create_directories(inner);
  TextFile file(folder_.path().u8string() + "\\\xC3\x84rzte\\logs\\\xD0\x9A.txt");
  file.writeLine("text");
  EXPECT_EQ(fileLines(inner / fs::u8path("\xD0\x9A.txt")), Lines{"text"});
}

TEST_F(TextFileTest, MissingFolder_LosesLinesUntilItIsThere) {
  TextFile file((missing_ / "log.txt").string());
  file.writeLine("heading");
  file.writeLine("lost");
  EXPECT_FALSE(fs::exists(missing_));
  fs::create_directory(missing_);
  std::ofstream(missing_ / "log.txt") << "another's, to be replaced however late\n";
  file.writeLine("kept");
  file.writeLine("and kept");
  EXPECT_EQ(fileLines(missing_ / "log.txt"), (Lines{"heading", "kept", "and kept"}));
}

TEST_F(TextFileTest, FileInTheFoldersPlace_LosesLinesUntilItIsAFolder) {
  std::ofstream(missing_) << "x";
  TextFile file((missing_ / "log.txt").string());
  file.writeLine("heading");
  fs::remove(missing_);
  fs::create_directory(missing_);
  file.writeLine("kept");
  EXPECT_EQ(fileLines(missing_ / "log.txt"), (Lines{"heading", "kept"}));
}

TEST_F(TextFileTest, FileThatIsLeftAlone_KeepsItsLines) {
  TextFile file(path_);
  for (const char* line : {"heading", "one", "two"}) {
    file.writeLine(line);
    clock_.advance(10'000);
  }
  EXPECT_EQ(fileLines(path_), (Lines{"heading", "one", "two"}));
}

// The time until an emptied or removed file is looked for again.
class LostFileTest : public TextFileTest, public testing::WithParamInterface<std::int64_t> {};

TEST_P(LostFileTest, Emptied_BeginsWithItsHeading) {
  TextFile file(path_);
  file.writeLine("heading");
  file.writeLine("gone");
  fs::resize_file(path_, 0);
  clock_.advance(GetParam());
  file.writeLine("kept");
  EXPECT_EQ(fileLines(path_), (Lines{"heading", "kept"}));
}

TEST_F(TextFileTest, EmptiedLessThanASecondAgo_BeginsWithItsHeadingAllTheSame) {
  TextFile file(path_);
  file.writeLine("heading");
  for (int i = 0; i < 2; ++i) {
    file.writeLine("gone");
    fs::resize_file(path_, 0);
    file.writeLine("a line that is longer than the heading");
    file.writeLine("kept");
    EXPECT_EQ(fileLines(path_),
              (Lines{"heading", "a line that is longer than the heading", "kept"}));
  }
}

#if !defined(_WIN32)  // which keeps an open file from being removed

TEST_P(LostFileTest, Removed_IsMadeAnewWithItsHeading) {
  TextFile file(path_);
  file.writeLine("heading");
  fs::remove(path_);
  clock_.advance(GetParam());
  file.writeLine("kept");
  file.writeLine("and kept");
  EXPECT_EQ(fileLines(path_), (Lines{"heading", "kept", "and kept"}));
}

TEST_F(TextFileTest, RemovedLessThanASecondAgo_IsNotLookedFor) {
  TextFile file(path_);
  file.writeLine("heading");
  fs::remove(path_);
  clock_.advance(999);
  file.writeLine("lost");
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(TextFileTest, FolderRemovedMeanwhile_IsAwaited) {
  fs::create_directory(missing_);
  TextFile file((missing_ / "log.txt").string());
  file.writeLine("heading");
  fs::remove_all(missing_);
  clock_.advance(1'000);
  file.writeLine("lost");
  EXPECT_FALSE(fs::exists(missing_));
  fs::create_directory(missing_);
  file.writeLine("kept");
  EXPECT_EQ(fileLines(missing_ / "log.txt"), (Lines{"heading", "kept"}));
}

#endif

INSTANTIATE_TEST_SUITE_P(AfterMilliseconds, LostFileTest, testing::Values(1'000, -86'400'000),
                         [](const auto& each) {
                           return each.param > 0 ? "OneSecond" : "ClockSetBackByADay";
                         });

}  // namespace
}  // namespace zelta
