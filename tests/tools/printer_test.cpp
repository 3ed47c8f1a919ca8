#include "tools/logs/printer.h"

#include <gtest/gtest.h>

#include "tests/tools/log_lines.h"

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

class PrinterTest : public testing::TestWithParam<Case> {};

TEST_P(PrinterTest, Shows) {
  Lines shown;
  Printer printer(GetParam().filter, GetParam().look,
                  [&](std::string_view line) { shown.emplace_back(line); });
  for (const std::string& line : GetParam().given) printer.print(line);
  EXPECT_EQ(shown, GetParam().shown);
}

// A record's columns before the message.
std::string columnsOf(std::string line) {
  return line.substr(0, parseRecord(line)->message.data() - line.data());
}
const std::string kInfo = columnsOf(test::kInfo);
const std::string kDebug = columnsOf(test::kDebug);

const Look kColors{true, true, false};
const Look kTerminal{false, true, false};
const Look kSecrets{false, false, true};

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
};

INSTANTIATE_TEST_SUITE_P(Tools, PrinterTest, testing::ValuesIn(kCases),
                         [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace zelta::logs
