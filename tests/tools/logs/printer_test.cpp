#include "tools/logs/printer.h"

#include <gtest/gtest.h>

#include <regex>

#include "tests/tools/logs/log_lines.h"

namespace zelta::logs {
namespace {

using Lines = std::vector<std::string>;

const Lines kLines = {test::kHeader, test::kInfo, test::kError, test::kDebug};

struct Case {
  const char* name;
  Filter filter;
  Look look;
  Lines given;
  Lines shown;
};

constexpr char kFile[] = "/logs/zelta_vsc_2024_03_05T14_07_09_042Z.txt";

class PrinterTest : public testing::TestWithParam<Case> {};

TEST_P(PrinterTest, Lines_AreFilteredAndShownInTheChosenFormat) {
  Lines shown;
  Printer printer(GetParam().filter, GetParam().look,
                  [&](std::string_view line) { shown.emplace_back(line); });
  for (const std::string& line : GetParam().given) printer.print(line, kFile);
  EXPECT_EQ(shown, GetParam().shown);
}

// A record's columns before the message.
std::string columnsOf(std::string line) {
  return line.substr(0, parseRecord(line)->message.data() - line.data());
}
const std::string kInfo = columnsOf(test::kInfo);
const std::string kDebug = columnsOf(test::kDebug);
// The columns of an error up to its level; the code and the message follow.
const std::string kError = columnsOf(test::kError).substr(0, columnsOf(test::kError).find("-1073"));

const Look kColors{true, true, false, Format::kFull};
const Look kTerminal{false, true, false, Format::kFull};
const Look kSecrets{false, false, true, Format::kFull};
const Look kCompact{false, false, false, Format::kCompact};
const Look kCompactTerminal{true, true, false, Format::kCompact};
const Look kJson{false, false, false, Format::kJson};
const Look kJsonTerminal{true, true, false, Format::kJson};

const std::string kNoSession = "2024-03-05 session 00000000-0000-0000-0000-000000000000";
const std::string kSession = "2024-03-05 session a1b2c3d4-0000-0000-0000-000000000000";
const std::string kCompactInfo = "14:07:09.042 INFO                 [TRSM]IOCTL_SMARTCARD_TRANSMIT";
const std::string kCompactError =
    "14:07:10.000 ERROR    -1073741448 [GATT]SCARD_ATTR_ATR_STRING: STATUS_NO_MEDIA";
const std::string kCompactDebug =
    "14:08:00.500 DEBUG                Start section:CMyDevice::OnD0Entry";
const std::string kRoutine = kError + "50          [GATT]ERROR_NOT_SUPPORTED:0007A009";

std::string jsonOf(const std::string& message) {
  return R"({"time":"2024-03-05T14:08:00.500Z","level":"debug","code":0,)"
         R"("session":"00000000-0000-0000-0000-000000000000","tag":null,"message":")" +
         message + R"(","thread":"1234","file":"zelta_vsc_2024_03_05T14_07_09_042Z.txt"})";
}

const Filter kErrors{Level::kError, {}, "", ""};

const Case kCases[] = {
    {"WithoutAFilter_EverythingAsItStands", {}, {}, kLines, kLines},
    {"HeaderOfASecondFile_Once",
     {},
     {},
     {test::kHeader, test::kInfo, test::kHeader, test::kDebug},
     {test::kHeader, test::kInfo, test::kDebug}},
    {"Level_ItAndTheGraverOnes", kErrors, {}, kLines, {test::kHeader, test::kError}},
    {"Tags_AnyOfThem",
     {Level::kTrace, {"[TRSM]", "gatt"}, "", ""},
     {},
     kLines,
     {test::kHeader, test::kInfo, test::kError}},
    {"Session_ByItsBeginning",
     {Level::kTrace, {}, "a1b2", ""},
     {},
     kLines,
     {test::kHeader, test::kError}},
    {"Since_FromThatTimeOn",
     {Level::kTrace, {}, "", "2024-03-05T14:07:10"},
     {},
     kLines,
     {test::kHeader, test::kError, test::kDebug}},
    {"RestOfAMessage_WithItsRecord",
     kErrors,
     {},
     {test::kInfo, "hidden rest", test::kError, "shown rest"},
     {test::kError, "shown rest"}},
    {"Colours_ErrorsMarked",
     {},
     kColors,
     {test::kInfo, test::kError},
     {test::kInfo, std::string("\x1b[31m") + test::kError + "\x1b[0m"}},
    {"ControlCharactersOnATerminal_Escaped",
     {},
     kTerminal,
     {test::kInfo + std::string("\x1b[2J\x7f\xC2\x9B"
                                "31m\t")},
     {test::kInfo + std::string("\\x1b[2J\\x7f\\xc2\\x9b31m\t")}},
    {"ChangesOfDirectionOnATerminal_Escaped",
     {},
     kTerminal,
     {test::kInfo + std::string("\u202Etxt.exe\u2066\u061C\u200F")},
     {test::kInfo + std::string("\\xe2\\x80\\xaetxt.exe\\xe2\\x81\\xa6\\xd8\\x9c\\xe2\\x80\\x8f")}},
    {"WhatIsNotUtf8OnATerminal_Escaped",
     {},
     kTerminal,
     {test::kInfo + std::string("\x9B \xE4 \xC1\x9B \xE0\x82\x9B \xE2\x80")},
     {test::kInfo + std::string("\\x9b \\xe4 \\xc1\\x9b \\xe0\\x82\\x9b \\xe2\\x80")}},
    {"OtherCharactersOnATerminal_AsTheyStand",
     {},
     kTerminal,
     {test::kInfo + std::string("K\u00E4se \u65E5 \U0001F0CF")},
     {test::kInfo + std::string("K\u00E4se \u65E5 \U0001F0CF")}},
    {"ControlCharactersInAPipe_AsTheyStand",
     {},
     {},
     {test::kInfo + std::string("\x1b[2J\u202E")},
     {test::kInfo + std::string("\x1b[2J\u202E")}},
    {"PinInADump_Hidden",
     {},
     {},
     {kDebug + "7 byte dump:", kDebug + "00 20 00 80 02 31 32 "},
     {kDebug + "7 byte dump:", kDebug + "00 20 00 80 02 .. .. "}},
    {"PinInADumpWhoseBeginningIsNotShown_Hidden",
     {Level::kTrace, {}, "", "2024-03-05T14:08"},
     {},
     {kInfo + "7 byte dump:", kDebug + "00 20 00 80 02 31 32 "},
     {kDebug + "00 20 00 80 02 .. .. "}},
    {"PinThatIsAskedFor_Shown",
     {},
     kSecrets,
     {kDebug + "7 byte dump:", kDebug + "00 20 00 80 02 31 32 "},
     {kDebug + "7 byte dump:", kDebug + "00 20 00 80 02 31 32 "}},
    {"ErrorOfEveryNormalUse_Dimmed", {}, kColors, {kRoutine}, {"\x1b[2m" + kRoutine + "\x1b[0m"}},
    {"Compact_FewColumnsWithTheSessionAsHeading",
     {},
     kCompact,
     {test::kHeader, test::kInfo, test::kDebug, test::kError, test::kHeader, test::kError, "rest"},
     {kNoSession, kCompactInfo, kCompactDebug, kSession, kCompactError, kCompactError,
      std::string(34, ' ') + "rest"}},
    {"CompactOnAnotherDay_NamesTheDay",
     {},
     kCompact,
     {test::kInfo, std::regex_replace(test::kInfo, std::regex("03-05"), "03-06")},
     {kNoSession, kCompactInfo, std::regex_replace(kNoSession, std::regex("03-05"), "03-06"),
      kCompactInfo}},
    {"CompactHeadingOfWhatIsNotShown_LeftOut",
     kErrors,
     kCompact,
     {test::kInfo, test::kError, test::kDebug, test::kError},
     {kSession, kCompactError, kCompactError}},
    {"CompactOnATerminal_ColouredAndEscaped",
     {},
     kCompactTerminal,
     {test::kError + std::string("\x1b[2J"), kRoutine},
     {"\x1b[1m" + kSession + "\x1b[0m", "\x1b[31m" + kCompactError + "\\x1b[2J\x1b[0m",
      "\x1b[2m14:07:10.000 ERROR             50 [GATT]ERROR_NOT_SUPPORTED:0007A009\x1b[0m"}},
    {"CompactLongMessage_InLinesOf100Columns",
     {},
     kCompact,
     {kDebug + std::string(60, 'a') + " bbbb ccccc " + std::string(67, '\xE4')},
     {kNoSession, kCompactDebug.substr(0, 34) + std::string(60, 'a') + " bbbb",
      std::string(34, ' ') + "ccccc", std::string(34, ' ') + std::string(66, '\xE4'),
      std::string(34, ' ') + '\xE4'}},
    {"CompactPin_Hidden",
     {},
     kCompact,
     {kDebug + "7 byte dump:", kDebug + "00 20 00 80 02 31 32 "},
     {kNoSession, kCompactDebug.substr(0, 34) + "7 byte dump:",
      kCompactDebug.substr(0, 34) + "00 20 00 80 02 .. .. "}},
    {"Json_AnObjectForEachRecord",
     {},
     kJson,
     {test::kHeader, test::kError, "rest"},
     {R"({"time":"2024-03-05T14:07:10.000Z","level":"error","code":-1073741448,)"
      R"("session":"a1b2c3d4-0000-0000-0000-000000000000","tag":"GATT",)"
      R"("message":"[GATT]SCARD_ATTR_ATR_STRING: STATUS_NO_MEDIA","thread":"123456789",)"
      R"("file":"zelta_vsc_2024_03_05T14_07_09_042Z.txt"})",
      R"({"message":"rest","file":"zelta_vsc_2024_03_05T14_07_09_042Z.txt"})"}},
    {"JsonOfSpecialCharacters_Escaped",
     {},
     kJson,
     {kDebug + "\"\\\x1b\t K\u00E4se \xE4!"},
     {jsonOf(R"(\"\\\u001b\t K)"
             "\u00E4se \uFFFD!")}},
    {"JsonOnATerminal_InAscii",
     {},
     kJsonTerminal,
     {kDebug + "\u202E\x7f\u00E4\xE4"},
     {jsonOf(R"(\u202e\u007f\u00e4\ufffd)")}},
    {"JsonOfAPin_Hidden",
     {},
     kJson,
     {kDebug + "7 byte dump:", kDebug + "00 20 00 80 02 31 32 "},
     {jsonOf("7 byte dump:"), jsonOf("00 20 00 80 02 .. .. ")}},
};

INSTANTIATE_TEST_SUITE_P(Tools, PrinterTest, testing::ValuesIn(kCases),
                         [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace zelta::logs
