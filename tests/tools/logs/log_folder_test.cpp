#include "tools/logs/log_folder.h"

#include <gmock/gmock.h>

#include <sys/stat.h>

#include <fstream>
#include <optional>

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
  std::vector<std::string> read() {
    std::vector<std::string> lines;
    reader_.readNew([&](std::string_view line, const auto& /*file*/) { lines.emplace_back(line); });
    return lines;
  }

  static constexpr char kFirst[] = "zelta_vsc_2024_03_05T14_07_09_042Z.txt";
  static constexpr char kSecond[] = "zelta_vsc_2024_03_05T14_07_09_043Z.txt";
  test::TempFolder folder_;
  LogReader reader_{folder_.path(), false};  // reads nothing yet
};

TEST_F(LogReaderTest, FromTheOldest_FilesAreReadInTheOrderOfTheirTimes) {
  write(kSecond, "second\n");
  write(kFirst, "first\n");
  write("other.txt", "other\n");
  reader_ = LogReader(folder_.path(), true);
  EXPECT_THAT(read(), ElementsAre("first", "second"));
  EXPECT_EQ(reader_.current(), folder_.path() / kSecond);
}

TEST_F(LogReaderTest, EachLine_ComesWithItsFile) {
  write(kFirst, "first\n");
  write(kSecond, "second\n");
  std::vector<std::pair<std::string, std::string>> lines;
  LogReader(folder_.path(), true).readNew([&](std::string_view line, const auto& file) {
    lines.emplace_back(line, file.filename().string());
  });
  EXPECT_THAT(lines, ElementsAre(std::pair("first", kFirst), std::pair("second", kSecond)));
}

TEST_F(LogReaderTest, FromTheNewest_OlderFilesAreLeftOut) {
  write(kFirst, "first\n");
  write(kSecond, "second\n");
  EXPECT_THAT(read(), ElementsAre("second"));
}

TEST_F(LogReaderTest, LineWithoutItsEnd_WaitsForTheRest) {
  write(kFirst, "one\ntw");
  EXPECT_THAT(read(), ElementsAre("one"));
  EXPECT_THAT(read(), IsEmpty());
  write(kFirst, "o\nthree\n");
  EXPECT_THAT(read(), ElementsAre("two", "three"));
}

TEST_F(LogReaderTest, LineWithoutItsEndInAnOlderFile_WaitsWhileTheFileIsBeingWritten) {
  write(kSecond, "newest\n");
  std::optional<std::ofstream> writer(std::in_place, folder_.path() / kFirst, std::ios::app);
  *writer << "one\ntw" << std::flush;
  EXPECT_THAT(read(), ElementsAre("one", "newest"));
  EXPECT_THAT(read(), IsEmpty());
  *writer << "o\nhalf" << std::flush;
  EXPECT_THAT(read(), ElementsAre("two"));
  writer.reset();
  EXPECT_THAT(read(), ElementsAre("half"));
  EXPECT_THAT(read(), IsEmpty());
}

TEST_F(LogReaderTest, OnlyRegularFiles_AreLogFiles) {
  write(kFirst, "one\n");
  write("other.txt", "other\n");
  ASSERT_EQ(mkfifo(folder_.file("zelta_vsc_zz1.txt").c_str(), 0600), 0);
  std::filesystem::create_directory(folder_.path() / "zelta_vsc_zz2.txt");
  std::filesystem::create_symlink("other.txt", folder_.path() / "zelta_vsc_zz3.txt");
  EXPECT_THAT(logFiles(folder_.path()), ElementsAre(folder_.path() / kFirst));
  EXPECT_THAT(read(), ElementsAre("one"));
}

TEST_F(LogReaderTest, Rotation_IsFollowedThroughSeveralFiles) {
  write(kFirst, "one\n");
  EXPECT_THAT(read(), ElementsAre("one"));
  write(kFirst, "two\ncut");
  write(kSecond, "three\n");
  write("zelta_vsc_2024_03_06T00_00_00_000Z.txt", "four\n");
  EXPECT_THAT(read(), ElementsAre("two", "cut", "three", "four"));
}

TEST_F(LogReaderTest, FilesOfSeveralProcesses_AreAllFollowed) {
  write(kFirst, "shown before\n");
  write(kSecond, "one\n");
  EXPECT_THAT(read(), ElementsAre("one"));
  write(kFirst, "of the first\n");
  write(kSecond, "of the second\n");
  EXPECT_THAT(read(), ElementsAre("of the first", "of the second"));
  write(kFirst, "more\n");
  EXPECT_THAT(read(), ElementsAre("more"));
}

TEST_F(LogReaderTest, OlderFileThatIsBeingWritten_IsShownFromItsBeginning) {
  write(kFirst, "one\n");
  write(kSecond, "two\n");
  const std::ofstream writer(folder_.path() / kFirst, std::ios::app);
  EXPECT_THAT(read(), ElementsAre("one", "two"));
}

TEST_F(LogReaderTest, FileThatWasRemovedAndMadeAgain_BeginsAnew) {
  write(kFirst, "one\n");
  EXPECT_THAT(read(), ElementsAre("one"));
  for (const char* text : {"1", "one", "a longer line than before"}) {
    std::filesystem::remove(folder_.path() / kFirst);
    write(kFirst, text + std::string("\n"));
    EXPECT_THAT(read(), ElementsAre(text));
  }
  std::filesystem::remove(folder_.path() / kFirst);
  EXPECT_THAT(read(), IsEmpty());
  write(kFirst, "back\n");
  EXPECT_THAT(read(), ElementsAre("back"));
}

TEST_F(LogReaderTest, FileThatWasEmptied_BeginsAnew) {
  write(kFirst, "one\ntwo\n");
  EXPECT_THAT(read(), ElementsAre("one", "two"));
  std::filesystem::resize_file(folder_.path() / kFirst, 0);
  write(kFirst, "three\n");
  EXPECT_THAT(read(), ElementsAre("three"));
}

TEST_F(LogReaderTest, WriterOfAFile_IsKnown) {
  write(kFirst, "one\n");
  const std::filesystem::path file = folder_.path() / kFirst;
  EXPECT_EQ(isBeingWritten(file), false);
  std::ofstream writer(file, std::ios::app);
  EXPECT_EQ(isBeingWritten(file), true);
  writer.close();
  const std::ifstream reader(file);
  EXPECT_EQ(isBeingWritten(file), false);
  EXPECT_EQ(isBeingWritten(folder_.path() / kSecond), std::nullopt);
}

TEST_F(LogReaderTest, EmptyFolder_GivesNothingUntilAFileComes) {
  EXPECT_THAT(read(), IsEmpty());
  EXPECT_TRUE(reader_.current().empty());
  write(kFirst, "one\n");
  EXPECT_THAT(read(), ElementsAre("one"));
}

}  // namespace
}  // namespace zelta::logs
