#include "logging/rotation_time.h"

#include <gtest/gtest.h>

#include <clocale>
#include <limits>
#include <string>

namespace zelta::logging {
namespace {

constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();

struct Case {
  std::string text;
  std::optional<std::int32_t> minutes;
};

struct Rule {
  const char* name;
  std::vector<Case> cases;
};

class RotationMinutes : public testing::TestWithParam<Rule> {};

TEST_P(RotationMinutes, Text_IsReadAsMinutes) {
  for (const Case& each : GetParam().cases) {
    EXPECT_EQ(rotationMinutes(each.text), each.minutes) << '"' << each.text << '"';
  }
}

const Rule kRules[] = {
    {"WholeNumber_IsTakenAsItIs",
     {{"60", 60}, {"0", 0}, {"1", 1}, {"0060", 60}, {"+7", 7}, {"2147483647", 2147483647}}},
    {"Fraction_IsCutTowardZero",
     {{"1.9", 1}, {"0.99", 0}, {"-0.5", 0}, {"-1.9", -1}, {".5", 0}, {"5.", 5}}},
    {"LeadingWhiteSpace_IsSkipped", {{" 30", 30}, {"\t\n\v\f\r 30", 30}, {"  -5", -5}}},
    {"TextAfterTheNumber_IsIgnored",
     {{" 30 minutes", 30}, {"30min", 30}, {"15,5", 15}, {"1.2.3", 1}, {"7 8", 7}}},
    {"Exponent_Counts", {{"1e2", 100}, {"1.5E+1", 15}, {"600e-1", 60}, {"5e", 5}}},
    {"HexadecimalNumber_Counts",
     {{"0x10", 16},
      {"-0X1F", -31},
      {"0x1.8p1", 3},
      {"0x", 0},
      {"0xg", 0},
      {"0x-5", 0},
      {"0xinf", 0}}},
    {"NoNumber_IsNone",
     {{"", {}},
      {" ", {}},
      {"abc", {}},
      {"-", {}},
      {"+", {}},
      {".", {}},
      {"e5", {}},
      {"--5", {}},
      {"+-5", {}},
      {"-+5", {}},
      {"- 5", {}},
      {"\xC2\xA0"
       "5",
       {}}}},
    {"NumberOutOfADoublesRange_IsNone",
     {{"1e999", {}}, {"-1e999", {}}, {"1e-999", {}}, {"0x1p99999", {}}}},
    {"NumberAbove32Bits_Wraps",
     {{"4294967296", 0},
      {"4294967297", 1},
      {"4294967356", 60},
      {"2147483648", kLowest},
      {"-2147483649", 2147483647},
      {"-4294967301", -5}}},
    {"NumberAbove64Bits_IsZero",
     {{"1e300", 0},
      {"-1e300", 0},
      {"9223372036854775808", 0},
      {"inf", 0},
      {"-Infinity", 0},
      {"nan", 0}}},
};

INSTANTIATE_TEST_SUITE_P(RotationTime, RotationMinutes, testing::ValuesIn(kRules),
                         [](const auto& each) { return each.param.name; });

TEST(RotationTime, LocaleWithADecimalComma_ChangesNothing) {
  // Any of these will do; a system without them has no locale that could disturb the result.
  const std::string before = std::setlocale(LC_ALL, nullptr);
  for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8"}) {
    if (std::setlocale(LC_ALL, name) != nullptr) break;
  }
  EXPECT_EQ(rotationMinutes("1.9e1"), 19);
  EXPECT_EQ(rotationMinutes("15,5"), 15);
  (void)std::setlocale(LC_ALL, before.c_str());
}

}  // namespace
}  // namespace zelta::logging
