#include "logging/line_format.h"

#include <gtest/gtest.h>

#include <limits>
#include <locale>
#include <stdexcept>
#include <thread>

#include "platform/process/thread_id.h"
#include "platform/sync/clock.h"
#include "tests/doubles/clock/simulated_clock.h"
#include "tests/support/log_files.h"

namespace zelta::logging {
namespace {

using test::kMarchTime;

constexpr char kSession[] = "0f8fad5b-d9cb-469f-a165-70867728950e";

TEST(LogFilePath, TimeOfAnyUnit_IsCutToTheMillisecondAndPadded) {
  EXPECT_EQ(logFilePath("C:\\logs\\zelta_vsc", kMarchTime),
            "C:\\logs\\zelta_vsc_2024_03_05T14_07_09_042Z.txt");
  EXPECT_EQ(logFilePath("a", kMarchTime + 9'999), "a_2024_03_05T14_07_09_042Z.txt");
  EXPECT_EQ(logFilePath("a", kMarchTime + 10'000), "a_2024_03_05T14_07_09_043Z.txt");
  EXPECT_EQ(logFilePath("a", 0), "a_1970_01_01T00_00_00_000Z.txt");
  EXPECT_EQ(logFilePath("a", 70'000), "a_1970_01_01T00_00_00_007Z.txt");
}

TEST(LogFilePath, BasePathThatIsEmptyOrLooksLikeAFormat_IsTakenAsItIs) {
  EXPECT_EQ(logFilePath("", kMarchTime), "_2024_03_05T14_07_09_042Z.txt");
  EXPECT_EQ(logFilePath("{}%d", kMarchTime), "{}%d_2024_03_05T14_07_09_042Z.txt");
}

TEST(HeaderLine, ColumnsHaveTheirWidths) {
  EXPECT_EQ(headerLine(), "Thread" + std::string(3, ' ') + "Time" + std::string(21, ' ') +
                              "Elapsed" + std::string(2, ' ') + "Session Log Id" +
                              std::string(23, ' ') + "Cat" + std::string(3, ' ') + "Level" +
                              std::string(6, ' ') + "RC" + std::string(10, ' ') + "Message");
  EXPECT_EQ(headerLine(), test::kHeaderText);
}

TEST(HeaderLine, AskedForTwice_IsBuiltOnce) { EXPECT_EQ(headerLine().data(), headerLine().data()); }

Record exampleRecord() {
  Record record;
  record.thread = "4711";
  record.time = kMarchTime;
  record.elapsed = 42;
  record.sessionLogId = kSession;
  record.level = 2;
  record.message = "hello";
  return record;
}

template <typename Value, typename Given>
Record with(Value Record::*member, Given value) {
  Record record = exampleRecord();
  record.*member = value;
  return record;
}

Record recordOfLongValues() {
  Record record = with(&Record::elapsed, 1234567890123);
  record.category = 4294967295;
  record.sessionLogId = "0f8fad5b-d9cb-469f-a165-70867728950e {} %s and more";
  record.resultCode = std::numeric_limits<std::int32_t>::min();
  record.level = 0;
  return record;
}

struct LineCase {
  const char* name;
  Record record;
  std::string line;
};

class RecordLine : public testing::TestWithParam<LineCase> {};

TEST_P(RecordLine, Record_IsWrittenInColumns) {
  EXPECT_EQ(recordLine(GetParam().record), GetParam().line);
}

const std::string kTimeText = "2024-03-05T14:07:09.042Z ";
const std::string kRest = kTimeText + "42       0f8fad5b-d9cb-469f-a165-70867728950e 0     ";
const std::string kUsual = "[4711  ] " + kRest + "<INFO>     0           ";

const LineCase kLines[] = {
    {"UsualValues_FillTheirColumns", exampleRecord(),
     "[4711  ] 2024-03-05T14:07:09.042Z 42       0f8fad5b-d9cb-469f-a165-70867728950e 0     "
     "<INFO>     0           hello"},
    {"FailureCode_FillsItsColumnExactly",
     with(&Record::resultCode, static_cast<std::int32_t>(0x8007000E)),
     "[4711  ] " + kRest + "<INFO>     -2147024882 hello"},
    {"OwnErrorCode_IsPadded", with(&Record::resultCode, -500),
     "[4711  ] " + kRest + "<INFO>     -500        hello"},
    {"ThreadOfSixDigits_FillsItsColumn", with(&Record::thread, "123456"),
     "[123456] " + kRest + "<INFO>     0           hello"},
    {"LongThread_ShiftsTheRest", with(&Record::thread, "140123456789012"),
     "[140123456789012] " + kRest + "<INFO>     0           hello"},
    {"LongValues_AreWrittenWhole", recordOfLongValues(),
     "[4711  ] " + kTimeText +
         "1234567890123 0f8fad5b-d9cb-469f-a165-70867728950e {} %s and more 4294967295 "
         "<CRITICAL> -2147483648 hello"},
    {"ClockSetBack_GivesANegativeElapsedTime", with(&Record::elapsed, -3'600'000),
     "[4711  ] " + kTimeText +
         "-3600000 0f8fad5b-d9cb-469f-a165-70867728950e 0     <INFO>     0           hello"},
    {"BracesInTheMessage_AreText", with(&Record::message, "{} {0} {{ }} %s %n \\n }"),
     kUsual + "{} {0} {{ }} %s %n \\n }"},
    {"BytesOfTheMessage_AreKept", with(&Record::message, "K\xC3\xA4 \xF0\x9F\x83\x8F \xFF "),
     kUsual + "K\xC3\xA4 \xF0\x9F\x83\x8F \xFF "},
    {"ControlCharactersOfTheMessage_AreEscaped",
     with(&Record::message, std::string_view("a\n\r\t\x1b[2J\x7f\0 \\x0a \xC2\x9B", 18)),
     kUsual + "a\\x0a\\x0d\\x09\\x1b[2J\\x7f\\x00 \\x0a \xC2\x9B"},
    {"ControlCharactersOfTheSession_AreEscapedAndCountInItsColumn",
     with(&Record::sessionLogId, "one\n[1]"),
     "[4711  ] " + kTimeText + "42       one\\x0a[1]" + std::string(27, ' ') +
         "0     <INFO>     0           hello"},
    {"EmptyMessage_EndsTheLineAfterItsSeparator", with(&Record::message, ""), kUsual},
};

INSTANTIATE_TEST_SUITE_P(LineFormat, RecordLine, testing::ValuesIn(kLines),
                         [](const auto& each) { return each.param.name; });

// The time column of a record that is so much later than the usual one.
std::string timeTextOf(std::int64_t milliseconds) {
  const std::int64_t time = kMarchTime + milliseconds * platform::kClockUnitsPerMillisecond;
  return recordLine(with(&Record::time, time)).substr(9, 24);
}

TEST(RecordLines, OfOneThread_HaveEachItsOwnTime) {
  EXPECT_EQ(timeTextOf(0), "2024-03-05T14:07:09.042Z");
  EXPECT_EQ(timeTextOf(957), "2024-03-05T14:07:09.999Z");
  EXPECT_EQ(timeTextOf(958), "2024-03-05T14:07:10.000Z");
  EXPECT_EQ(timeTextOf(60'000), "2024-03-05T14:08:09.042Z");
  EXPECT_EQ(timeTextOf(0), "2024-03-05T14:07:09.042Z") << "the clock was put back";
}

TEST(LevelTag, NumbersZeroToFour_HaveTheirTags) {
  const char* const tags[] = {"<CRITICAL>", "<ERROR>", "<INFO>", "<DEBUG>", "<TRACE>"};
  for (std::int32_t level = 0; level < 5; ++level) EXPECT_EQ(levelTag(level), tags[level]);
}

TEST(LevelTag, AnyOtherNumber_IsOutOfRange) {
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

TEST(CurrentThreadText, EachThread_HasItsNumberInTheOperatingSystem) {
  EXPECT_EQ(currentThreadText(), std::to_string(platform::currentThreadId()));
  std::string other;
  std::thread([&] { other = currentThreadText(); }).join();
  EXPECT_FALSE(other.empty());
  EXPECT_NE(currentThreadText(), other);
}

// Thousands separators, as some locales have them.
class Grouping : public std::numpunct<char> {
 public:
  Grouping() : numpunct(1) {}  // no locale deletes it

 protected:
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(LineFormat, GlobalLocaleWithDigitGroups_ChangesNothing) {
  static Grouping grouping;
  const std::locale before = std::locale::global(std::locale(std::locale(), &grouping));
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
