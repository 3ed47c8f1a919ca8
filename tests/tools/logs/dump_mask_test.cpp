#include "tools/logs/dump_mask.h"

#include <gtest/gtest.h>

namespace zelta::logs {
namespace {

using Lines = std::vector<std::string>;

struct Case {
  const char* name;
  Lines given;
  Lines shown;
};

class DumpMaskTest : public testing::TestWithParam<Case> {};

TEST_P(DumpMaskTest, DumpLines_AreShownWithSecretsHidden) {
  DumpMask mask;
  Lines shown;
  for (const std::string& line : GetParam().given) shown.push_back(mask.masked("1", line));
  EXPECT_EQ(shown, GetParam().shown);
}

Lines dump(const std::string& length, Lines lines) {
  lines.insert(lines.begin(), length + " byte dump:");
  return lines;
}

std::string times(int count, const std::string& text) {
  std::string result;
  while (count-- > 0) result += text;
  return result;
}

const std::string kElevenBytes = times(11, "31 ");
const std::string kElevenHidden = times(11, ".. ");

const Case kCases[] = {
    {"Verify_ItsDataHidden", dump("9", {"00 20 00 81 04 31 32 33 34 "}),
     dump("9", {"00 20 00 81 04 .. .. .. .. "})},
    {"LengthOfTheAnswer_Shown", dump("8", {"00 20 00 81 02 31 32 00 "}),
     dump("8", {"00 20 00 81 02 .. .. 00 "})},
    {"DataOverSeveralLines_HiddenToItsEnd",
     dump("38", {"0c 24 00 81 20 " + kElevenBytes, times(16, "32 "), "33 33 33 33 33 00 "}),
     dump("38", {"0c 24 00 81 20 " + kElevenHidden, times(16, ".. "), ".. .. .. .. .. 00 "})},
    {"ExtendedLength_HiddenAfterSevenBytes",
     dump("20", {"00 2c 00 81 00 00 0b " + times(9, "31 "), "31 31 01 00 "}),
     dump("20", {"00 2c 00 81 00 00 0b " + times(9, ".. "), ".. .. 01 00 "})},
    {"LengthThatDoesNotAddUp_HiddenToTheEnd", dump("9", {"00 21 00 81 02 31 32 33 34 "}),
     dump("9", {"00 21 00 81 02 .. .. .. .. "})},
    {"LengthOfNothing_HiddenToTheEnd", dump("6", {"00 20 00 81 00 31 "}),
     dump("6", {"00 20 00 81 00 .. "})},
    {"QuestionForTheRetryCounter_Shown", dump("4", {"00 20 00 81 "}), dump("4", {"00 20 00 81 "})},
    {"AnyOtherCommand_Shown", dump("18", {"00 a4 04 00 0d " + kElevenBytes, "31 31 "}),
     dump("18", {"00 a4 04 00 0d " + kElevenBytes, "31 31 "})},
    {"LineWhoseBeginningIsUnknown_HiddenWhole", {"31 32 33 "}, {".. .. .. "}},
    {"LineOfAnotherLengthThanAnnounced_HiddenWhole", dump("18", {"00 a4 "}),
     dump("18", {".. .. "})},
    {"LineAfterTheEnd_HiddenWhole", dump("2", {"00 a4 ", "31 "}), dump("2", {"00 a4 ", ".. "})},
    {"AnotherMessageInBetween_EndsTheDump", dump("18", {"Card removed", "31 32 "}),
     dump("18", {"Card removed", ".. .. "})},
    {"OtherMessages_AsTheyStand",
     {"", "ab", "0a", "zz ", "+1 byte dump:", "[QueryATR]ATR:3B951381"},
     {"", "ab", "0a", "zz ", "+1 byte dump:", "[QueryATR]ATR:3B951381"}},
};

INSTANTIATE_TEST_SUITE_P(Tools, DumpMaskTest, testing::ValuesIn(kCases),
                         [](const auto& each) { return each.param.name; });

TEST(DumpMaskInstructions, ThoseWithAPin_AreHidden) {
  for (int instruction = 0; instruction < 256; ++instruction) {
    char text[] = "00 xx 00 81 01 31 ";
    (void)std::snprintf(text + 3, 3, "%02x", instruction);
    text[5] = ' ';
    DumpMask mask;
    mask.masked("1", "6 byte dump:");
    const bool isHidden = mask.masked("1", text) != text;
    const bool hasPin =
        (instruction >= 0x20 && instruction <= 0x2D) &&
        std::string("0145678 9CD").find("0123456789ABCDEF"[instruction & 15]) != std::string::npos;
    EXPECT_EQ(isHidden, hasPin) << text;
  }
}

TEST(DumpMaskThreads, DumpsOfTwoThreads_AreToldApart) {
  DumpMask mask;
  mask.masked("1", "22 byte dump:");
  mask.masked("2", "22 byte dump:");
  mask.masked("1", "00 20 00 81 11 " + kElevenBytes);
  mask.masked("2", "00 a4 04 00 11 " + kElevenBytes);
  EXPECT_EQ(mask.masked("1", times(6, "31 ")), times(6, ".. "));
  EXPECT_EQ(mask.masked("2", times(6, "31 ")), times(6, "31 "));
}

}  // namespace
}  // namespace zelta::logs
