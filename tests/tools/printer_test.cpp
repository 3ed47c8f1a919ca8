#include "tools/logs/printer.h"

#include <gmock/gmock.h>

#include "tests/tools/log_lines.h"

namespace zelta::logs {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::vector<std::string> shown(const Filter& filter, const std::vector<std::string>& lines,
                               bool color = false) {
  std::vector<std::string> result;
  Printer printer(filter, color, [&](std::string_view line) { result.emplace_back(line); });
  for (const auto& line : lines) printer.line(line);
  return result;
}

const std::vector<std::string> kLines = {test::kHeader, test::kInfo, test::kError, test::kDebug};

TEST(Printer, WithoutFilterEverythingIsShownAsItStands) { EXPECT_EQ(shown({}, kLines), kLines); }

TEST(Printer, HeaderOfASecondFileIsNotRepeated) {
  EXPECT_THAT(shown({}, {test::kHeader, test::kInfo, test::kHeader, test::kDebug}),
              ElementsAre(test::kHeader, test::kInfo, test::kDebug));
}

TEST(Printer, LevelShowsItAndTheGraverOnes) {
  Filter filter;
  filter.level = Level::kError;
  EXPECT_THAT(shown(filter, kLines), ElementsAre(test::kHeader, test::kError));
}

TEST(Printer, TagsAreAlternatives) {
  Filter filter;
  filter.tags = {"[TRSM]", "gatt"};
  EXPECT_THAT(shown(filter, kLines), ElementsAre(test::kHeader, test::kInfo, test::kError));
}

TEST(Printer, SessionIsComparedByItsBeginning) {
  Filter filter;
  filter.session = "a1b2";
  EXPECT_THAT(shown(filter, kLines), ElementsAre(test::kHeader, test::kError));
}

TEST(Printer, SinceIsInclusive) {
  Filter filter;
  filter.since = "2024-03-05T14:07:10";
  EXPECT_THAT(shown(filter, kLines), ElementsAre(test::kHeader, test::kError, test::kDebug));
}

TEST(Printer, RestOfAMessageGoesWithItsRecord) {
  Filter filter;
  filter.level = Level::kError;
  EXPECT_THAT(shown(filter, {test::kInfo, "hidden rest", test::kError, "shown rest"}),
              ElementsAre(test::kError, "shown rest"));
}

TEST(Printer, ColoursMarkErrorsOnly) {
  const auto lines = shown({}, {test::kInfo, test::kError}, true);
  EXPECT_EQ(lines[0], test::kInfo);
  EXPECT_EQ(lines[1], std::string("\x1b[31m") + test::kError + "\x1b[0m");
}

TEST(Printer, ControlCharactersDoNotReachATerminal) {
  const auto lines = shown({}, {std::string(test::kInfo) + "\x1b[2J"}, true);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], std::string(test::kInfo) + "?[2J");
}

}  // namespace
}  // namespace zelta::logs
