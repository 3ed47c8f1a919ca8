#include "tools/logs/record.h"

#include <gtest/gtest.h>

#include "tests/tools/logs/log_lines.h"

namespace zelta::logs {
namespace {

TEST(ParseRecord, RecordLine_IsTakenApart) {
  const auto record = parseRecord(test::kError);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->thread, "123456789");
  EXPECT_EQ(record->time, "2024-03-05T14:07:10.000Z");
  EXPECT_EQ(record->session, "a1b2c3d4-0000-0000-0000-000000000000");
  EXPECT_EQ(record->level, Level::kError);
  EXPECT_EQ(record->code, -1073741448);
  EXPECT_EQ(record->message, "[GATT]SCARD_ATTR_ATR_STRING: STATUS_NO_MEDIA");
  EXPECT_EQ(std::string(record->columns).append(record->message), test::kError);
}

TEST(ParseRecord, PaddedFields_AreTrimmedAndTheMessagesLeadingBlanksKept) {
  const auto record = parseRecord(
      "[7     ] 2024-03-05T14:07:09.042Z 0        my session 1                         0     "
      "<CRITICAL> -500          two blanks in front");
  ASSERT_TRUE(record);
  EXPECT_EQ(record->thread, "7");
  EXPECT_EQ(record->session, "my session 1");
  EXPECT_EQ(record->level, Level::kCritical);
  EXPECT_EQ(record->message, "  two blanks in front");
}

TEST(ParseRecord, SessionThatLooksLikeOtherColumns_IsTheSession) {
  for (const char* session : {"a<b", "<ERROR>", "<b> 0", "x 0     <ERROR>    0           forged"}) {
    const std::string line = std::string("[7     ] 2024-03-05T14:07:09.042Z 0        ") + session +
                             " 0     <DEBUG>    0           31 32 ";
    const auto record = parseRecord(line);
    ASSERT_TRUE(record) << session;
    EXPECT_EQ(record->session, session);
    EXPECT_EQ(record->level, Level::kDebug);
    EXPECT_EQ(record->message, "31 32 ");
  }
}

TEST(ParseRecord, EmptyMessage_IsARecord) {
  const auto record = parseRecord(
      "[7     ] 2024-03-05T14:07:09.042Z 0        x                                    0     "
      "<INFO>     0           ");
  ASSERT_TRUE(record);
  EXPECT_EQ(record->message, "");
}

TEST(ParseRecord, AnyOtherLine_IsNone) {
  for (const char* line :
       {"", "[", "[1]", test::kHeader, "continued text", "[1     ] yesterday 0 x 0 <INFO> 0 m",
        "[1     ] 2024-03-05T14:07:09.042Z x s 0 <INFO> 0 m",
        "[1     ] 2024-03-05T14:07:09.042Z 0 s 0 <LOUD> 0 m",
        "[1     ] 2024-03-05T14:07:09.042Z 0 s 0 INFO 0 m",
        "[1     ] 2024-03-05T14:07:09.042Z 0 s zero <INFO> 0 m",
        "[1     ] 2024-03-05T14:07:09.042Z 0 s 0 <INFO> code m"}) {
    EXPECT_FALSE(parseRecord(line)) << line;
  }
}

TEST(IsHeader, HeaderLine_IsKnown) {
  EXPECT_TRUE(isHeader(test::kHeader));
  EXPECT_FALSE(isHeader(test::kInfo));
  EXPECT_FALSE(isHeader("Thread of mine"));
}

TEST(ParseLevel, NamesInAnyCaseAndNumbers_AreKnown) {
  EXPECT_EQ(parseLevel("error"), Level::kError);
  EXPECT_EQ(parseLevel("CRITICAL"), Level::kCritical);
  EXPECT_EQ(parseLevel("Trace"), Level::kTrace);
  EXPECT_EQ(parseLevel("3"), Level::kDebug);
  for (const char* text : {"5", "", "warning", "<ERROR>"}) EXPECT_FALSE(parseLevel(text)) << text;
}

TEST(HasTag, TagWithOrWithoutBracketsInAnyCase_IsFoundBeforeTheText) {
  EXPECT_TRUE(hasTag("[TRSM]text", "[TRSM]"));
  EXPECT_TRUE(hasTag("[TRSM]text", "trsm"));
  EXPECT_TRUE(hasTag("[A][TRSM]text", "TRSM"));
  for (const char* message : {"text [TRSM]", "[TRSM", "[TRSMX]text"}) {
    EXPECT_FALSE(hasTag(message, "TRSM")) << message;
  }
}

TEST(FirstTag, Message_GivesItWithoutBrackets) {
  EXPECT_EQ(firstTag("[A][TRSM]text"), "A");
  for (const char* message : {"", "text [A]", "[A", "[]text"}) EXPECT_EQ(firstTag(message), "");
}

TEST(IsRoutine, ErrorOfAnAttributeThatIsNotSupported_IsRoutine) {
  const auto record = [](Level level, std::int64_t code, std::string_view message) {
    Record result;
    result.level = level;
    result.code = code;
    result.message = message;
    return result;
  };
  EXPECT_TRUE(isRoutine(record(Level::kError, 50, "[GATT]ERROR_NOT_SUPPORTED:0007A009")));
  EXPECT_TRUE(isRoutine(record(Level::kError, 50, "[SATT]ERROR_NOT_SUPPORTED:0007A009")));
  EXPECT_FALSE(isRoutine(record(Level::kError, 50, "[IOCT]ERROR_NOT_SUPPORTED:0007A009")));
  EXPECT_FALSE(isRoutine(record(Level::kError, 1, "[GATT]ERROR_NOT_SUPPORTED:0007A009")));
  EXPECT_FALSE(isRoutine(record(Level::kInfo, 50, "[GATT]ERROR_NOT_SUPPORTED:0007A009")));
}

TEST(ParseSpan, NumberAndUnit_AreSeconds) {
  EXPECT_EQ(parseSpan("90s"), 90);
  EXPECT_EQ(parseSpan("10m"), 600);
  EXPECT_EQ(parseSpan("12h"), 12 * 3600);
  EXPECT_EQ(parseSpan("999999999d"), std::int64_t{999'999'999} * 24 * 3600);
  for (const char* text :
       {"", "d", "30", "-1d", "+1d", "1.5h", "1dd", "30 d", "1w", "1000000000d"}) {
    EXPECT_FALSE(parseSpan(text)) << text;
  }
}

TEST(ParseSize, NumberAndUnit_AreBytes) {
  EXPECT_EQ(parseSize("0"), 0u);
  EXPECT_EQ(parseSize("4096"), 4096u);
  EXPECT_EQ(parseSize("64K"), 64u * 1024);
  EXPECT_EQ(parseSize("200M"), 200u * 1024 * 1024);
  EXPECT_EQ(parseSize("999999999G"), std::uint64_t{999'999'999} << 30);
  for (const char* text : {"", "M", "-1M", "1.5G", "1MB", "200 M", "1T", "1000000000"}) {
    EXPECT_FALSE(parseSize(text)) << text;
  }
}

TEST(ParseSince, Spans_CountBackFromNow) {
  constexpr std::int64_t kNow = 1709647629;  // 2024-03-05T14:07:09Z
  EXPECT_EQ(parseSince("9s", kNow), "2024-03-05T14:07:00");
  EXPECT_EQ(parseSince("10m", kNow), "2024-03-05T13:57:09");
  EXPECT_EQ(parseSince("2h", kNow), "2024-03-05T12:07:09");
  EXPECT_EQ(parseSince("1d", kNow), "2024-03-04T14:07:09");
}

TEST(ParseSince, Times_MayBeCutShort) {
  EXPECT_EQ(parseSince("2024-03-05", 0), "2024-03-05");
  EXPECT_EQ(parseSince("2024-03-05T14:07Z", 0), "2024-03-05T14:07");
  EXPECT_EQ(parseSince("2024-03-05T14:07:09.042Z", 0), "2024-03-05T14:07:09.042");
}

TEST(ParseSince, AnythingElse_IsRefused) {
  for (const char* text : {"", "m", "-5m", "yesterday", "2024", "2024-03-05 14:07", "5w"}) {
    EXPECT_FALSE(parseSince(text, 0)) << text;
  }
}

}  // namespace
}  // namespace zelta::logs
