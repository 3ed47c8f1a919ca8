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
  bool color;
  Lines given;
  Lines shown;
};

class PrinterTest : public testing::TestWithParam<Case> {};

TEST_P(PrinterTest, Shows) {
  Lines shown;
  Printer printer(GetParam().filter, GetParam().color,
                  [&](std::string_view line) { shown.emplace_back(line); });
  for (const std::string& line : GetParam().given) printer.print(line);
  EXPECT_EQ(shown, GetParam().shown);
}

const Filter kErrors{Level::kError, {}, "", ""};

const Case kCases[] = {
    {"WithoutAFilter_EverythingAsItStands", {}, false, kLines, kLines},
    {"HeaderOfASecondFile_Once",
     {},
     false,
     {test::kHeader, test::kInfo, test::kHeader, test::kDebug},
     {test::kHeader, test::kInfo, test::kDebug}},
    {"Level_ItAndTheGraverOnes", kErrors, false, kLines, {test::kHeader, test::kError}},
    {"Tags_AnyOfThem",
     {Level::kTrace, {"[TRSM]", "gatt"}, "", ""},
     false,
     kLines,
     {test::kHeader, test::kInfo, test::kError}},
    {"Session_ByItsBeginning",
     {Level::kTrace, {}, "a1b2", ""},
     false,
     kLines,
     {test::kHeader, test::kError}},
    {"Since_FromThatTimeOn",
     {Level::kTrace, {}, "", "2024-03-05T14:07:10"},
     false,
     kLines,
     {test::kHeader, test::kError, test::kDebug}},
    {"RestOfAMessage_WithItsRecord",
     kErrors,
     false,
     {test::kInfo, "hidden rest", test::kError, "shown rest"},
     {test::kError, "shown rest"}},
    {"Colours_ErrorsMarked",
     {},
     true,
     {test::kInfo, test::kError},
     {test::kInfo, std::string("\x1b[31m") + test::kError + "\x1b[0m"}},
    {"ControlCharactersOnATerminal_Replaced",
     {},
     true,
     {std::string(test::kInfo) + "\x1b[2J"},
     {std::string(test::kInfo) + "?[2J"}},
};

INSTANTIATE_TEST_SUITE_P(Tools, PrinterTest, testing::ValuesIn(kCases),
                         [](const auto& each) { return each.param.name; });

}  // namespace
}  // namespace zelta::logs
