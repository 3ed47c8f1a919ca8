#include "tools/logs/log_folder.h"

#include <gmock/gmock.h>

#include "tests/support/temp_folder.h"

namespace zelta::logs {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LogReaderTest : public ::testing::Test {
 protected:
  void write(const std::string& name, const std::string& text) {
    std::ofstream(folder_.path() / name, std::ios::app | std::ios::binary) << text;
  }
  std::vector<std::string> read(LogReader& reader) {
    std::vector<std::string> lines;
    reader.readNew([&](std::string_view line) { lines.emplace_back(line); });
    return lines;
  }

  static constexpr char kFirst[] = "zelta_vsc_2024_03_05T14_07_09_042Z.txt";
  static constexpr char kSecond[] = "zelta_vsc_2024_03_05T14_07_09_043Z.txt";
  test::TempFolder folder_;
};

TEST_F(LogReaderTest, FromTheOldest_FilesAreReadInTheOrderOfTheirTimes) {
  write(kSecond, "second\n");
  write(kFirst, "first\n");
  write("other.txt", "other\n");
  LogReader reader(folder_.path(), true);
  EXPECT_THAT(read(reader), ElementsAre("first", "second"));
  EXPECT_EQ(reader.current(), folder_.path() / kSecond);
}

TEST_F(LogReaderTest, FromTheNewest_OlderFilesAreLeftOut) {
  write(kFirst, "first\n");
  write(kSecond, "second\n");
  LogReader reader(folder_.path(), false);
  EXPECT_THAT(read(reader), ElementsAre("second"));
}

TEST_F(LogReaderTest, LineWithoutItsEnd_WaitsForTheRest) {
  write(kFirst, "one\ntw");
  LogReader reader(folder_.path(), false);
  EXPECT_THAT(read(reader), ElementsAre("one"));
  EXPECT_THAT(read(reader), IsEmpty());
  write(kFirst, "o\nthree\n");
  EXPECT_THAT(read(reader), ElementsAre("two", "three"));
}

TEST_F(LogReaderTest, Rotation_IsFollowedThroughSeveralFiles) {
  write(kFirst, "one\n");
  LogReader reader(folder_.path(), false);
  EXPECT_THAT(read(reader), ElementsAre("one"));
  write(kFirst, "two\ncut");
  write(kSecond, "three\n");
  write("zelta_vsc_2024_03_06T00_00_00_000Z.txt", "four\n");
  EXPECT_THAT(read(reader), ElementsAre("two", "cut", "three", "four"));
}

TEST_F(LogReaderTest, EmptyFolder_GivesNothingUntilAFileComes) {
  LogReader reader(folder_.path(), false);
  EXPECT_THAT(read(reader), IsEmpty());
  EXPECT_TRUE(reader.current().empty());
  write(kFirst, "one\n");
  EXPECT_THAT(read(reader), ElementsAre("one"));
}

}  // namespace
}  // namespace zelta::logs
