#include "logging/line_format.h"

#include <gtest/gtest.h>

#include <clocale>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tests/doubles/clock/simulated_clock.h"
#include "tests/support/log_files.h"

namespace zelta::logging {
namespace {

using test::kHeaderText;
using test::kMarchTime;

constexpr char kSession[] = "0f8fad5b-d9cb-469f-a165-70867728950e";

Record exampleRecord() {
  Record record;
  record.thread = "4711";
  record.time = kMarchTime;
  record.elapsed = 42;
  record.sessionLogId = kSession;
  record.category = 0;
  record.level = 2;
  record.resultCode = 0;
  record.message = "hello";
  return record;
}

TEST(LineFormat, FileNameCarriesTheTimeToTheMillisecond) {
  EXPECT_EQ(logFilePath("C:\\logs\\zelta_vsc", kMarchTime),
            "C:\\logs\\zelta_vsc_2024_03_05T14_07_09_042Z.txt");
}

TEST(LineFormat, FileNameCutsBelowTheMillisecond) {
  EXPECT_EQ(logFilePath("a", kMarchTime + 9'999), "a_2024_03_05T14_07_09_042Z.txt");
  EXPECT_EQ(logFilePath("a", kMarchTime + 10'000), "a_2024_03_05T14_07_09_043Z.txt");
}

TEST(LineFormat, EmptyBasePathGivesARelativeFileName) {
  EXPECT_EQ(logFilePath("", kMarchTime), "_2024_03_05T14_07_09_042Z.txt");
}

TEST(LineFormat, BasePathIsNoFormat) {
  EXPECT_EQ(logFilePath("{}%d", kMarchTime), "{}%d_2024_03_05T14_07_09_042Z.txt");
}

TEST(LineFormat, FileNamePadsTheMilliseconds) {
  EXPECT_EQ(logFilePath("a", 0), "a_1970_01_01T00_00_00_000Z.txt");
  EXPECT_EQ(logFilePath("a", 70'000), "a_1970_01_01T00_00_00_007Z.txt");
}

TEST(LineFormat, HeaderHasTheColumnsInTheirWidths) {
  EXPECT_EQ(headerLine(), "Thread" + std::string(3, ' ') + "Time" + std::string(21, ' ') +
                              "Elapsed" + std::string(2, ' ') + "Session Log Id" +
                              std::string(23, ' ') + "Cat" + std::string(3, ' ') + "Level" +
                              std::string(6, ' ') + "RC" + std::string(10, ' ') + "Message");
  EXPECT_EQ(headerLine(), kHeaderText);
}

TEST(LineFormat, HeaderIsBuiltOnce) { EXPECT_EQ(headerLine().data(), headerLine().data()); }

TEST(LineFormat, RecordHasTheColumnsInTheirWidths) {
  EXPECT_EQ(recordLine(exampleRecord()),
            "[4711  ] 2024-03-05T14:07:09.042Z 42       0f8fad5b-d9cb-469f-a165-70867728950e "
            "0     <INFO>     0           hello");
}

TEST(LineFormat, ColumnsOfRecordsStandBelowThoseOfTheHeader) {
  const std::string line = recordLine(exampleRecord());
  EXPECT_EQ(line.find("2024-"), headerLine().find("Time"));
  EXPECT_EQ(line.find("42 "), headerLine().find("Elapsed"));
  EXPECT_EQ(line.find(kSession), headerLine().find("Session"));
  EXPECT_EQ(line.find("<INFO>"), headerLine().find("Level"));
  EXPECT_EQ(line.find("hello"), headerLine().find("Message"));
}

TEST(LineFormat, FailureCodeIsNegativeAndFillsItsColumn) {
  Record record = exampleRecord();
  record.level = 1;
  record.resultCode = static_cast<std::int32_t>(0x8007000E);
  EXPECT_EQ(recordLine(record),
            "[4711  ] 2024-03-05T14:07:09.042Z 42       0f8fad5b-d9cb-469f-a165-70867728950e "
            "0     <ERROR>    -2147024882 hello");
  record.resultCode = static_cast<std::int32_t>(0x80070057);
  EXPECT_NE(recordLine(record).find(" -2147024809 hello"), std::string::npos);
  record.resultCode = -500;
  EXPECT_NE(recordLine(record).find(" -500        hello"), std::string::npos);
}

TEST(LineFormat, LongThreadShiftsTheRest) {
  Record record = exampleRecord();
  record.thread = "123456";
  EXPECT_EQ(recordLine(record).find("2024-"), headerLine().find("Time"));
  record.thread = "140123456789012";
  EXPECT_EQ(recordLine(record),
            "[140123456789012] 2024-03-05T14:07:09.042Z 42       "
            "0f8fad5b-d9cb-469f-a165-70867728950e 0     <INFO>     0           hello");
}

TEST(LineFormat, LongValuesAreWrittenWhole) {
  Record record = exampleRecord();
  record.elapsed = 1234567890123;
  record.category = 4294967295;
  record.sessionLogId = "0f8fad5b-d9cb-469f-a165-70867728950e-and-more";
  record.resultCode = std::numeric_limits<std::int32_t>::min();
  record.level = 0;
  EXPECT_EQ(recordLine(record),
            "[4711  ] 2024-03-05T14:07:09.042Z 1234567890123 "
            "0f8fad5b-d9cb-469f-a165-70867728950e-and-more 4294967295 <CRITICAL> -2147483648 "
            "hello");
}

TEST(LineFormat, NegativeElapsedIsWrittenAsItIs) {
  Record record = exampleRecord();
  record.elapsed = -3600000;  // the clock was set back
  EXPECT_NE(recordLine(record).find("Z -3600000 0f8f"), std::string::npos);
}

TEST(LineFormat, MessageIsNoFormat) {
  Record record = exampleRecord();
  record.message = "{} {0} {{ }} %s %n \\n }";
  const std::string line = recordLine(record);
  EXPECT_EQ(line.substr(line.size() - record.message.size()), record.message);
}

TEST(LineFormat, MessageIsWrittenByteForByte) {
  Record record = exampleRecord();
  record.message = "K\xC3\xA4rtchen \xF0\x9F\x83\x8F \xFF\xFE end ";
  const std::string line = recordLine(record);
  EXPECT_EQ(line.substr(line.find("K\xC3")), record.message);
}

TEST(LineFormat, EmptyMessageEndsTheLineBehindItsSeparator) {
  Record record = exampleRecord();
  record.message = "";
  const std::string line = recordLine(record);
  EXPECT_EQ(line.substr(line.size() - 12), "0           ");
}

TEST(LineFormat, EveryLevelHasItsTag) {
  EXPECT_EQ(levelTag(0), "<CRITICAL>");
  EXPECT_EQ(levelTag(1), "<ERROR>");
  EXPECT_EQ(levelTag(2), "<INFO>");
  EXPECT_EQ(levelTag(3), "<DEBUG>");
  EXPECT_EQ(levelTag(4), "<TRACE>");
}

TEST(LineFormat, LevelWithoutTagIsOutOfRange) {
  for (const std::int32_t level : {5, 255, -1, std::numeric_limits<std::int32_t>::min()}) {
    Record record = exampleRecord();
    record.level = level;
    try {
      recordLine(record);
      FAIL() << level;
    } catch (const std::out_of_range& error) {
      EXPECT_STREQ(error.what(), "invalid map<K, T> key");
    }
  }
}

TEST(LineFormat, ThreadIsPrintedAsTheStandardLibraryDoes) {
  std::ostringstream expected;
  expected << std::this_thread::get_id();
  EXPECT_EQ(currentThreadText(), expected.str());
  EXPECT_EQ(currentThreadText().find_first_not_of("0123456789"), std::string::npos);
}

TEST(LineFormat, EveryThreadHasItsOwnText) {
  std::string other;
  std::thread([&] { other = currentThreadText(); }).join();
  EXPECT_FALSE(other.empty());
  EXPECT_NE(currentThreadText(), other);
}

// Thousands separators, as some locales have them.
class Grouping : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(LineFormat, GlobalLocaleChangesNothing) {
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
  std::string thread;
  std::thread([&] { thread = currentThreadText(); }).join();
  Record record = exampleRecord();
  record.elapsed = 1234567;
  const std::string line = recordLine(record);
  const std::string path = logFilePath("a", kMarchTime);
  std::locale::global(before);
  EXPECT_EQ(thread.find('.'), std::string::npos);
  EXPECT_NE(line.find(" 1234567 "), std::string::npos);
  EXPECT_EQ(path, "a_2024_03_05T14_07_09_042Z.txt");
}

}  // namespace
}  // namespace zelta::logging
