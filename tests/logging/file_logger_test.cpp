#include "logging/file_logger.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <thread>

#include "logging/line_format.h"
#include "tests/doubles/clock/simulated_clock.h"
#include "tests/support/log_files.h"
#include "tests/support/temp_folder.h"

namespace zelta::logging {
namespace {

namespace fs = std::filesystem;
using test::fileLines;
using test::filesIn;
using test::LogLine;
using test::recordsOf;
using test::summaries;
using Texts = std::vector<std::string>;

constexpr char kSession[] = "0f8fad5b-d9cb-469f-a165-70867728950e";
constexpr char kOtherSession[] = "7c9e6679-7425-40de-944b-e07fc1f90ae7";

class FileLoggerTest : public ::testing::Test {
 protected:
  std::vector<LogLine> records() const { return recordsOf(filesIn(folder_.path()).front()); }

  test::TempFolder folder_;
  const std::string base_ = folder_.file("zelta_vsc");
  test::SimulatedClock clock_;
  test::ScopedClock scope_{clock_};
};

TEST_F(FileLoggerTest, FirstFileIsNamedByTheTimeAndBeginsWithTheHeader) {
  FileLogger logger(0, 2, kSession, nullptr, base_);
  ASSERT_EQ(filesIn(folder_.path()).size(), 1u);
  EXPECT_EQ(filesIn(folder_.path())[0].filename(), "zelta_vsc_2024_03_05T14_07_09_042Z.txt");
  EXPECT_EQ(fileLines(filesIn(folder_.path())[0]), Texts{test::kHeaderText});
}

TEST_F(FileLoggerTest, RecordIsOneGoldenLine) {
  FileLogger logger(7, 3, kSession, nullptr, base_);
  clock_.advance(1'500);
  logger.log("card { is } 100% in", 1, static_cast<std::int32_t>(0x8007000E));
  std::string thread(currentThreadText());
  thread.resize(std::max<std::size_t>(thread.size(), 6), ' ');
  EXPECT_EQ(fileLines(filesIn(folder_.path())[0])[1],
            "[" + thread +
                "] 2024-03-05T14:07:10.542Z 1500     0f8fad5b-d9cb-469f-a165-70867728950e "
                "7     <ERROR>    -2147024882 card { is } 100% in");
}

TEST_F(FileLoggerTest, LoggerThatIsItsOwnRootIsTopLevel) {
  FileLogger logger(0, 2, kSession, &logger, base_);
  logger.log("text", 2, 0);
  EXPECT_EQ(summaries(records()), Texts{"<INFO> 0 text"});
}

TEST_F(FileLoggerTest, EmptyBasePathMakesAFileInTheCurrentFolder) {
  const fs::path before = fs::current_path();
  fs::current_path(folder_.path());
  {
    FileLogger logger(0, 2, kSession, nullptr, "");
    logger.log("text", 2, 0);
  }
  fs::current_path(before);
  ASSERT_EQ(filesIn(folder_.path()).size(), 1u);
  EXPECT_EQ(filesIn(folder_.path())[0].filename(), "_2024_03_05T14_07_09_042Z.txt");
  EXPECT_EQ(summaries(records()), Texts{"<INFO> 0 text"});
}

TEST_F(FileLoggerTest, FilteredLogDropsWhatIsAboveTheThreshold) {
  for (std::uint32_t threshold = 0; threshold <= 4; ++threshold) {
    clock_.advance(1);
    FileLogger logger(0, threshold, kSession, nullptr, base_);
    for (std::int32_t level = 0; level <= 4; ++level) logger.log(level, 0, "text");
    EXPECT_EQ(recordsOf(filesIn(folder_.path()).back()).size(), threshold + 1);
  }
}

TEST_F(FileLoggerTest, EveryOperationTestsTheLevelInTheLineWriter) {
  FileLogger logger(0, 1, kSession, nullptr, base_);
  const std::int32_t code = 5;
  logger.log("dropped", 2, 5);
  logger.log("dropped", Level::kInfo, code);
  logger.writeLine("dropped", 0, 2, 5, kSession);
  logger.log(2, 5, "dropped");
  logger.log("by value", 1, 5);
  logger.log("by reference", Level::kError, code);
  logger.writeLine("direct", 9, 0, 5, kOtherSession);
  logger.log(1, 5, "filtered");
  EXPECT_EQ(summaries(records()), (Texts{"<ERROR> 5 by value", "<ERROR> 5 by reference",
                                         "<CRITICAL> 5 direct", "<ERROR> 5 filtered"}));
  EXPECT_EQ(records()[2].category, 9u);
  EXPECT_EQ(records()[2].sessionLogId, kOtherSession);
}

TEST_F(FileLoggerTest, ThresholdCanBeChanged) {
  FileLogger logger(0, 2, kSession, nullptr, base_);
  logger.log(3, 0, "dropped");
  logger.setThreshold(3);
  EXPECT_EQ(logger.threshold(), 3u);
  logger.log(3, 0, "written");
  logger.setThreshold(0);
  logger.log(1, 0, "dropped");
  EXPECT_EQ(summaries(records()), Texts{"<DEBUG> 0 written"});
}

TEST_F(FileLoggerTest, LevelWithoutTagThatPassesTheThresholdIsOutOfRange) {
  FileLogger logger(0, 10, kSession, nullptr, base_);
  try {
    logger.log("text", 5, 0);
    FAIL();
  } catch (const std::out_of_range& error) {
    EXPECT_STREQ(error.what(), "invalid map<K, T> key");
  }
  logger.log("above the threshold", 11, 0);
  EXPECT_TRUE(records().empty());
}

TEST_F(FileLoggerTest, NegativeLevelIsAboveEveryThresholdButTheHighest) {
  FileLogger logger(0, 4, kSession, nullptr, base_);
  logger.log("text", -1, 0);
  EXPECT_TRUE(records().empty());
  logger.setThreshold(0xFFFFFFFF);
  EXPECT_THROW(logger.log("text", -1, 0), std::out_of_range);
}

TEST_F(FileLoggerTest, ReservedWordIsZero) {
  FileLogger logger(3, 2, kSession, nullptr, base_);
  EXPECT_EQ(logger.reservedWord(), 0u);
}

TEST_F(FileLoggerTest, FormatterLeavesTheMessageAsItIs) {
  EXPECT_EQ(StringFormatter().format("{} %s \n \xFF"), "{} %s \n \xFF");
}

TEST_F(FileLoggerTest, ElapsedCountsFromTheFile) {
  FileLogger logger(0, 2, kSession, nullptr, base_);
  logger.log("at once", 2, 0);
  clock_.advance(90'061'001);
  logger.log("later", 2, 0);
  clock_.set(test::kMarchTime - 10'000'000);
  logger.log("clock set back", 2, 0);
  EXPECT_EQ(records()[0].elapsed, 0);
  EXPECT_EQ(records()[1].elapsed, 90'061'001);
  EXPECT_EQ(records()[2].elapsed, -1'000);
}

TEST_F(FileLoggerTest, ChildForSessionDiffersInTheSessionOnly) {
  FileLogger logger(7, 2, kSession, nullptr, base_);
  const std::unique_ptr<FileLogger> child = logger.createChildForSession(kOtherSession);
  child->log("child", 2, 0);
  logger.log("parent", 2, 0);
  EXPECT_EQ(filesIn(folder_.path()).size(), 1u);
  EXPECT_EQ(records()[0].sessionLogId, kOtherSession);
  EXPECT_EQ(records()[0].category, 7u);
  EXPECT_EQ(records()[1].sessionLogId, kSession);
  EXPECT_EQ(child->threshold(), 2u);
}

TEST_F(FileLoggerTest, ChildForCategoryDiffersInTheCategoryOnly) {
  FileLogger logger(7, 2, kSession, nullptr, base_);
  logger.createChildForCategory(8)->log("child", 2, 0);
  logger.createChildForCategory(kSameCategory)->log("same", 2, 0);
  EXPECT_EQ(filesIn(folder_.path()).size(), 1u);
  EXPECT_EQ(records()[0].category, 8u);
  EXPECT_EQ(records()[0].sessionLogId, kSession);
  EXPECT_EQ(records()[1].category, 7u);
}

TEST_F(FileLoggerTest, ChildOfAChildWritesToTheRoot) {
  FileLogger logger(7, 2, kSession, nullptr, base_);
  const auto child = logger.createChildForCategory(8);
  const auto grandchild = child->createChildForSession(kOtherSession);
  grandchild->log(2, 0, "text");
  EXPECT_EQ(records()[0].category, 8u);
  EXPECT_EQ(records()[0].sessionLogId, kOtherSession);
}

TEST_F(FileLoggerTest, ChildObeysTheRootsThresholdAndItsOwn) {
  FileLogger logger(0, 2, kSession, nullptr, base_);
  const auto child = logger.createChildForCategory(1);
  logger.setThreshold(3);
  child->log(3, 0, "above the child's own threshold");
  child->log("past the child's own test", 3, 0);
  child->setThreshold(4);
  child->log(4, 0, "above the root's threshold");
  child->log(3, 0, "below both");
  EXPECT_EQ(summaries(records()),
            (Texts{"<DEBUG> 0 past the child's own test", "<DEBUG> 0 below both"}));
}

TEST_F(FileLoggerTest, ChildsLineWriterDoesNothing) {
  FileLogger logger(0, 2, kSession, nullptr, base_);
  logger.createChildForCategory(1)->writeLine("text", 1, 0, 0, kSession);
  EXPECT_TRUE(records().empty());
}

TEST_F(FileLoggerTest, HeaderIsTheSameInEveryFile) {
  FileLogger first(0, 2, kSession, nullptr, base_);
  clock_.advance(1);
  FileLogger second(9, 0, kOtherSession, nullptr, base_);
  ASSERT_EQ(filesIn(folder_.path()).size(), 2u);
  EXPECT_EQ(fileLines(filesIn(folder_.path())[0]), fileLines(filesIn(folder_.path())[1]));
}

TEST_F(FileLoggerTest, SecondFileWithinAMillisecondDoesNotWipeOutTheFirst) {
  FileLogger first(0, 2, kSession, nullptr, base_);
  first.log("first", 2, 0);
  FileLogger second(0, 2, kSession, nullptr, base_);
  second.log("second", 2, 0);
  first.log("first again", 2, 0);
  const std::vector<fs::path> files = filesIn(folder_.path());
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(files[1].filename(), "zelta_vsc_2024_03_05T14_07_09_043Z.txt");
  EXPECT_EQ(summaries(recordsOf(files[0])), (Texts{"<INFO> 0 first", "<INFO> 0 first again"}));
  EXPECT_EQ(summaries(recordsOf(files[1])), Texts{"<INFO> 0 second"});
}

TEST_F(FileLoggerTest, MissingFolderIsNoFailure) {
  const fs::path inner = folder_.path() / "missing";
  FileLogger logger(0, 2, kSession, nullptr, (inner / "zelta_vsc").string());
  logger.log("lost", 2, 0);
  fs::create_directory(inner);
  logger.log("kept", 2, 0);
  ASSERT_EQ(filesIn(inner).size(), 1u);
  EXPECT_EQ(summaries(recordsOf(filesIn(inner)[0])), Texts{"<INFO> 0 kept"});
}

}  // namespace
}  // namespace zelta::logging
