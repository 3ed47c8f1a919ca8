#include "logging/file_logger.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>

#include "logging/line_format.h"
#include "tests/doubles/clock/simulated_clock.h"
#include "tests/support/log_files.h"
#include "tests/support/temp_folder.h"

namespace zelta::logging {
namespace {

namespace fs = std::filesystem;
using test::fileLines;
using test::recordsOf;
using test::summaries;
using Texts = std::vector<std::string>;

constexpr char kSession[] = "0f8fad5b-d9cb-469f-a165-70867728950e";
constexpr char kOtherSession[] = "7c9e6679-7425-40de-944b-e07fc1f90ae7";

class FileLoggerTest : public ::testing::Test {
 protected:
  std::vector<fs::path> files() const { return test::filesIn(folder_.path()); }
  std::vector<test::LogLine> records() const { return recordsOf(files().front()); }
  // The category and the session of a record of the first file.
  std::string originOf(std::size_t record) const {
    const test::LogLine line = records().at(record);
    return std::to_string(line.category) + " " + line.sessionLogId;
  }

  test::TempFolder folder_;
  const std::string base_ = folder_.file("zelta_vsc");
  test::SimulatedClock clock_;
  test::ScopedClock scope_{clock_};
};

TEST_F(FileLoggerTest, Files_AreNamedByTheirTimeAndBeginWithTheSameHeader) {
  FileLogger first(0, 2, kSession, nullptr, base_);
  clock_.advance(1);
  FileLogger second(9, 0, kOtherSession, nullptr, base_);
  ASSERT_EQ(files().size(), 2u);
  EXPECT_EQ(files()[0].filename(), "zelta_vsc_2024_03_05T14_07_09_042Z.txt");
  EXPECT_EQ(files()[1].filename(), "zelta_vsc_2024_03_05T14_07_09_043Z.txt");
  for (const fs::path& file : files()) EXPECT_EQ(fileLines(file), Texts{test::kHeaderText});
}

TEST_F(FileLoggerTest, LoggerThatIsItsOwnRoot_IsTopLevel) {
  FileLogger logger(0, 2, kSession, &logger, base_);
  logger.log("text", 2, 0);
  EXPECT_EQ(summaries(records()), Texts{"<INFO> 0 text"});
}

TEST_F(FileLoggerTest, EmptyBasePath_MakesAFileInTheCurrentFolder) {
  const fs::path before = fs::current_path();
  fs::current_path(folder_.path());
  {
    FileLogger logger(0, 2, kSession, nullptr, "");
    logger.log("text", 2, 0);
  }
  fs::current_path(before);
  ASSERT_EQ(files().size(), 1u);
  EXPECT_EQ(files()[0].filename(), "_2024_03_05T14_07_09_042Z.txt");
  EXPECT_EQ(summaries(records()), Texts{"<INFO> 0 text"});
}

TEST_F(FileLoggerTest, RecordsAboveTheThreshold_AreDropped) {
  FileLogger logger(0, 2, kSession, nullptr, base_);
  for (std::uint32_t threshold = 0; threshold <= 4; ++threshold) {
    logger.setThreshold(threshold);
    EXPECT_EQ(logger.threshold(), threshold);
    const std::size_t before = records().size();
    for (std::int32_t level = 0; level <= 4; ++level) logger.log(level, 0, "text");
    EXPECT_EQ(records().size() - before, threshold + 1);
  }
}

TEST_F(FileLoggerTest, EveryOperation_TestsTheLevelInTheLineWriter) {
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
  EXPECT_EQ(originOf(2), std::string("9 ") + kOtherSession);
}

TEST_F(FileLoggerTest, LevelWithoutATag_IsOutOfRangeIfItPassesTheThreshold) {
  FileLogger logger(0, 10, kSession, nullptr, base_);
  logger.log("above the threshold", 11, 0);
  // Levels compare unsigned: a negative one is above every threshold but the highest.
  logger.log("above the threshold", -1, 0);
  EXPECT_TRUE(records().empty());
  EXPECT_THROW(logger.log("text", 5, 0), std::out_of_range);
  logger.setThreshold(0xFFFFFFFF);
  EXPECT_THROW(logger.log("text", -1, 0), std::out_of_range);
}

TEST_F(FileLoggerTest, ReservedWord_IsZero) {
  FileLogger logger(3, 2, kSession, nullptr, base_);
  EXPECT_EQ(logger.reservedWord(), 0u);
}

TEST_F(FileLoggerTest, ElapsedTime_CountsFromTheFile) {
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

TEST_F(FileLoggerTest, Children_WriteToTheRootsFileWithTheirOwnCategoryAndSession) {
  FileLogger logger(7, 2, kSession, nullptr, base_);
  const auto session = logger.createChildForSession(kOtherSession);
  const auto category = logger.createChildForCategory(8);
  session->log("text", 2, 0);
  category->log("text", 2, 0);
  category->createChildForSession(kOtherSession)->log(2, 0, "text");
  category->createChildForCategory(kSameCategory)->log("text", 2, 0);
  logger.log("text", 2, 0);
  EXPECT_EQ(files().size(), 1u);
  EXPECT_EQ(originOf(0), std::string("7 ") + kOtherSession);
  EXPECT_EQ(originOf(1), std::string("8 ") + kSession);
  EXPECT_EQ(originOf(2), std::string("8 ") + kOtherSession);
  EXPECT_EQ(originOf(3), std::string("8 ") + kSession);
  EXPECT_EQ(originOf(4), std::string("7 ") + kSession);
}

TEST_F(FileLoggerTest, Child_ObeysTheRootsThresholdAndItsOwn) {
  FileLogger logger(0, 2, kSession, nullptr, base_);
  const auto child = logger.createChildForCategory(1);
  EXPECT_EQ(child->threshold(), 2u);
  logger.setThreshold(3);
  child->log(3, 0, "above the child's own threshold");
  child->log("past the child's own test", 3, 0);
  child->setThreshold(4);
  child->log(4, 0, "above the root's threshold");
  child->log(3, 0, "below both");
  EXPECT_EQ(summaries(records()),
            (Texts{"<DEBUG> 0 past the child's own test", "<DEBUG> 0 below both"}));
}

TEST_F(FileLoggerTest, LineWriterOfAChild_DoesNothing) {
  FileLogger logger(0, 2, kSession, nullptr, base_);
  logger.createChildForCategory(1)->writeLine("text", 1, 0, 0, kSession);
  EXPECT_TRUE(records().empty());
}

TEST_F(FileLoggerTest, SecondFileWithinAMillisecond_DoesNotWipeOutTheFirst) {
  FileLogger first(0, 2, kSession, nullptr, base_);
  first.log("first", 2, 0);
  FileLogger second(0, 2, kSession, nullptr, base_);
  second.log("second", 2, 0);
  first.log("first again", 2, 0);
  ASSERT_EQ(files().size(), 2u);
  EXPECT_EQ(files()[1].filename(), "zelta_vsc_2024_03_05T14_07_09_043Z.txt");
  EXPECT_EQ(summaries(recordsOf(files()[0])), (Texts{"<INFO> 0 first", "<INFO> 0 first again"}));
  EXPECT_EQ(summaries(recordsOf(files()[1])), Texts{"<INFO> 0 second"});
}

}  // namespace
}  // namespace zelta::logging
