#include "tools/trace/record.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/trace/page.h"

namespace zelta::trace {
namespace {

// 2024-03-05T14:07:09.042Z.
constexpr char kTime[] = "\"time_us\":1709647629042000";

Record transmit(const std::string& command, const std::string& response) {
  const auto record = parseRecord(std::string("{") + kTime +
                                  ",\"kind\":\"transmit\",\"duration_us\":1400,\"command\":\"" +
                                  command + "\",\"response\":\"" + response + "\"}");
  EXPECT_TRUE(record);
  return record.value_or(Record());
}

Record event(const std::string& members) {
  const auto record = parseRecord(std::string("{") + kTime + "," + members + "}");
  EXPECT_TRUE(record) << members;
  return record.value_or(Record());
}

// The lines of the records, in their order.
std::vector<std::string> lines(const std::vector<Record>& records, std::size_t width = 0) {
  Reader reader;
  std::vector<std::string> all;
  for (const Record& record : records) {
    all.push_back(lineOf(record, reader.describe(record), width));
  }
  return all;
}

std::string line(const Record& record) { return lines({record}).front(); }

TEST(HexTexts, HiddenBytes_AreNone) {
  const HexText text("0A**FF");
  EXPECT_EQ(text.size(), 3u);
  EXPECT_EQ(text.byte(0), 0x0A);
  EXPECT_EQ(text.byte(1), std::nullopt);
  EXPECT_EQ(text.byte(3), std::nullopt);
  EXPECT_EQ(text.word(0), std::nullopt);
  EXPECT_EQ(HexText("6A82").word(0), 0x6A82);
  EXPECT_EQ(text.part(1, 9).digits(), "**FF");
  EXPECT_EQ(text.part(3, 1).digits(), "");
  EXPECT_EQ(text.shortened(3), "0A**FF");
  EXPECT_EQ(text.shortened(2), "0A**...");
}

TEST(TraceRecord, LineThatIsNone_IsRefused) {
  for (const char* text :
       {"", "x", "{}", "[]", "null", "{\"time_us\":1,\"kind\":\"insert\"",
        "{\"time_us\":1,\"kind\":\"insert\"} x", "{\"time_us\":1,\"kind\":null,}",
        "{\"kind\":\"insert\"}", "{\"time_us\":1}",
        "{\"time_us\":1,\"kind\":\"transmit\",\"command\":\"0\"}",
        "{\"time_us\":1,\"kind\":\"transmit\",\"command\":\"<b\"}"}) {
    EXPECT_FALSE(parseRecord(text)) << text;
  }
}

TEST(TraceLine, Exchange_HasTimeDurationClassInstructionAndStatusInWords) {
  EXPECT_EQ(line(transmit("00B0000002", "AABB9000")),
            "14:07:09.042   1.4 ms  > ISO READ BINARY < 9000 success [2] AABB");
  EXPECT_EQ(line(transmit("00A4020C022F00", "6A82")),
            "14:07:09.042   1.4 ms  > ISO SELECT [2] 2F00 < 6A82 file or application not found");
  EXPECT_EQ(line(transmit("0020008002****", "63C1")),
            "14:07:09.042   1.4 ms  > ISO VERIFY [2] **** < 63C1 wrong PIN or key, 1 try left");
}

TEST(TraceLine, WhatIsNoApdu_IsToldSo) {
  EXPECT_EQ(line(transmit("00", "6700")),
            "14:07:09.042   1.4 ms  > ISO not an APDU < 6700 wrong length");
  EXPECT_EQ(line(transmit("00B00000", "")), "14:07:09.042   1.4 ms  > ISO READ BINARY < no answer");
  EXPECT_EQ(line(transmit("00B00000", "90")),
            "14:07:09.042   1.4 ms  > ISO READ BINARY < no status word");
}

TEST(TraceLine, Data_IsShortened) {
  EXPECT_EQ(line(transmit("00B0000000", std::string(60, 'A') + "9000")),
            "14:07:09.042   1.4 ms  > ISO READ BINARY < 9000 success [30] " + std::string(32, 'A') +
                "...");
}

TEST(TraceLine, WidthOfTheTerminal_IsKept) {
  const Record record = transmit("00B0000002", "AABB9000");
  EXPECT_EQ(lines({record}, 40).front(), "14:07:09.042   1.4 ms  > ISO READ BIN...");
  EXPECT_EQ(lines({record}, 64).front(), lines({record}, 0).front());
}

TEST(TraceLine, Events_AreInWords) {
  EXPECT_EQ(
      lines({event("\"kind\":\"insert\""), event("\"kind\":\"remove\""),
             event("\"kind\":\"connect\""), event("\"kind\":\"late\",\"command\":\"00200080\""),
             event("\"kind\":\"lost\",\"count\":3"), event("\"kind\":\"future\""),
             event("\"kind\":\"begin\",\"reader\":0,\"backend\":\"pcsc\",\"card\":\"out\","
                   "\"connected\":false,\"atr\":null")}),
      (std::vector<std::string>{
          "14:07:09.042           -- card in", "14:07:09.042           -- card out",
          "14:07:09.042           -- driver connected, session begins",
          "14:07:09.042           -- card late, answered in its place 00200080",
          "14:07:09.042           -- 3 records lost: this reader is too slow",
          "14:07:09.042           -- future",
          "14:07:09.042           -- reader 0, pcsc card out, driver not connected"}));
  EXPECT_EQ(line(event("\"kind\":\"reset\",\"duration_us\":20,\"response\":\"3B00\"")),
            "14:07:09.042    20 us  > reset < [2] 3B00");
  EXPECT_EQ(line(event("\"kind\":\"atr\",\"duration_us\":2500000,\"response\":\"\"")),
            "14:07:09.042    2.5 s  > ATR < no answer");
}

std::string whatOf(const std::vector<Record>& records) {
  Reader reader;
  Words words;
  for (const Record& record : records) words = reader.describe(record);
  return words.what;
}

TEST(TraceReader, MeaningOfACommand_IsThatOfTheSelectedApplication) {
  const Record selectPiv = transmit("00A404000BA000000308000010000100", "9000");
  const Record selectPgp = transmit("00A4040006D27600012401", "9000");
  const Record refusedPgp = transmit("00A4040006D27600012401", "6A82");
  const Record verify = transmit("0020008202****", "9000");
  EXPECT_EQ(whatOf({selectPiv}), "SELECT PIV");
  EXPECT_EQ(whatOf({selectPgp, verify}), "VERIFY PIN");
  EXPECT_EQ(whatOf({selectPiv, refusedPgp, verify}), "VERIFY");
  EXPECT_EQ(whatOf({selectPgp, event("\"kind\":\"reset\",\"response\":\"3B00\""), verify}),
            "VERIFY");
  EXPECT_EQ(whatOf({selectPiv, transmit("00CB3FFF055C035FC10500", "9000")}),
            "GET DATA PIV authentication certificate");
  EXPECT_EQ(whatOf({selectPgp, transmit("00CA006E00", "9000")}), "GET DATA application data");
}

TEST(TraceReader, Details_HaveEverythingWhole) {
  Reader reader;
  const Words words = reader.describe(transmit("00D6000001AA", "6982"));
  EXPECT_FALSE(words.good);
  EXPECT_EQ(words.details, (std::vector<std::pair<std::string, std::string>>{
                               {"Class", "00 ISO"},
                               {"Instruction", "D6 UPDATE BINARY"},
                               {"P1 P2", "0000"},
                               {"Command data", "AA (1 byte)"},
                               {"Command", "00D6000001AA (6 bytes)"},
                               {"Status", "6982 security status not satisfied"},
                               {"Response", "6982 (2 bytes)"},
                               {"Application", "ISO"}}));
}

TEST(TraceReader, ExtendedData_IsFound) {
  EXPECT_EQ(commandData(HexText("00D600000000020102")).digits(), "0102");
  EXPECT_EQ(commandData(HexText("00D6000002010200")).digits(), "0102");
  EXPECT_EQ(commandData(HexText("00B0000000")).digits(), "");
  EXPECT_EQ(commandData(HexText("00B00000")).digits(), "");
}

TEST(TracePage, NoTextEndsTheElementOfTheRecords) {
  Record record = event("\"kind\":\"begin\",\"backend\":\"</script><b>\"");
  const std::string page = makePage({record});
  EXPECT_EQ(page.find("</script><b>"), std::string::npos);
  EXPECT_NE(page.find("\\u003C/script>\\u003Cb>"), std::string::npos);
  EXPECT_EQ(page.find("@RECORDS@"), std::string::npos);
  EXPECT_NE(makePage({}).find("application/json\">[]</script>"), std::string::npos);
}

TEST(TracePage, PageNeedsNoNetwork) {
  const std::string page = makePage({});
  EXPECT_NE(page.find("default-src 'none'"), std::string::npos);
  EXPECT_EQ(page.find(" src="), std::string::npos);
  EXPECT_EQ(page.find(" href="), std::string::npos);
}

}  // namespace
}  // namespace zelta::trace
