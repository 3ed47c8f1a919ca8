#include "agent/card/script.h"

#include <gtest/gtest.h>

#include "contract/bytes.h"
#include "tests/support/case_names.h"

namespace zelta::agent {
namespace {

using std::chrono::milliseconds;

Bytes responseOf(Script& script, const Bytes& command) {
  return script.responseTo(command).to(command);
}

TEST(Script, SmallestScript_HasAnAtrOnly) {
  Script script = parseScript("atr 3B 00\n");
  EXPECT_EQ(script.atr.bytes, (Bytes{0x3B, 0x00}));
  EXPECT_EQ(script.atr.delay, milliseconds(0));
  EXPECT_TRUE(script.cardIn);
  EXPECT_EQ(responseOf(script, {0x00, 0xA4}), (Bytes{0x6D, 0x00}));
}

TEST(Script, CommentsBlankLinesAndLineEnds_AreIgnored) {
  const Script script = parseScript("# a card\r\n\n  atr 3b00 # short\r\n\t\ncard out\r\n");
  EXPECT_EQ(script.atr.bytes, (Bytes{0x3B, 0x00}));
  EXPECT_FALSE(script.cardIn);
}

TEST(Script, Atr_MayBeLateOrNone) {
  EXPECT_EQ(parseScript("atr 3B00 after 250ms").atr.delay, milliseconds(250));
  EXPECT_EQ(parseScript("atr none after 3s").atr.delay, milliseconds(3000));
  EXPECT_EQ(parseScript("atr none").atr.to({}), Bytes());
}

TEST(Script, FirstReplyThatMatches_Answers) {
  Script script = parseScript(
      "atr 3B00\n"
      "command 00A40400 -> 9000\n"
      "command 00 A4 ?? 00 -> 6A82 after 5ms\n"
      "command 00 A4 * -> 6A86\n"
      "command 00CA* -> echo\n"
      "command 00B0 -> fill 3\n"
      "command 00FF -> none\n"
      "otherwise 6E00 after 1s\n");
  EXPECT_EQ(responseOf(script, {0x00, 0xA4, 0x04, 0x00}), (Bytes{0x90, 0x00}));
  EXPECT_EQ(responseOf(script, {0x00, 0xA4, 0x08, 0x00}), (Bytes{0x6A, 0x82}));
  EXPECT_EQ(script.responseTo({0x00, 0xA4, 0x08, 0x00}).delay, milliseconds(5));
  EXPECT_EQ(responseOf(script, {0x00, 0xA4, 0x08, 0x00, 0x01}), (Bytes{0x6A, 0x86}));
  EXPECT_EQ(responseOf(script, {0x00, 0xA4}), (Bytes{0x6A, 0x86}));
  EXPECT_EQ(responseOf(script, {0x00, 0xCA, 0x01}), (Bytes{0x00, 0xCA, 0x01, 0x90, 0x00}));
  EXPECT_EQ(responseOf(script, {0x00, 0xB0}), (Bytes{0x00, 0x01, 0x02, 0x90, 0x00}));
  EXPECT_EQ(responseOf(script, {0x00, 0xFF}), Bytes());
  EXPECT_EQ(responseOf(script, {0x00}), (Bytes{0x6E, 0x00}));
  EXPECT_EQ(script.otherwise.delay, milliseconds(1000));
}

TEST(Script, ResponsesInTurns_BeginAgainAfterTheLast) {
  Script script = parseScript(
      "atr 3B00\n"
      "command 00C0 -> 61 10 then 90 00 after 5ms then none then fill 1\n"
      "command 00B0 -> 6A82\n");
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(responseOf(script, {0x00, 0xC0}), (Bytes{0x61, 0x10}));
    EXPECT_EQ(responseOf(script, {0x00, 0xB0}), (Bytes{0x6A, 0x82}));
    EXPECT_EQ(script.responseTo({0x00, 0xC0}).delay, milliseconds(5));
    EXPECT_EQ(responseOf(script, {0x00, 0xC0}), Bytes());
    EXPECT_EQ(responseOf(script, {0x00, 0xC0}), (Bytes{0x00, 0x90, 0x00}));
  }
}

TEST(Script, LongestFill_IsTheLongestResponseOfACard) {
  Script script = parseScript("atr 3B00\ncommand * -> fill 65536");
  EXPECT_EQ(responseOf(script, {}).size(), 65538u);
}

TEST(Script, Events_AreAtTimesAndOnCommands) {
  const Script script = parseScript(
      "atr 3B00\n"
      "at 2s remove\n"
      "at 2500ms insert\n"
      "on 00A4* remove\n"
      "on reset remove after 10ms\n"
      "on atr insert\n"
      "on ready remove\n");
  ASSERT_EQ(script.timed.size(), 2u);
  EXPECT_EQ(script.timed[0].at, milliseconds(2000));
  EXPECT_EQ(script.timed[0].action, CardAction::kRemove);
  EXPECT_EQ(script.timed[1].at, milliseconds(2500));
  EXPECT_EQ(script.timed[1].action, CardAction::kInsert);
  ASSERT_EQ(script.triggers.size(), 4u);
  EXPECT_EQ(script.triggers[0].on, Script::Trigger::On::kCommand);
  EXPECT_TRUE(script.triggers[0].pattern.matches({0x00, 0xA4, 0x04}));
  EXPECT_FALSE(script.triggers[0].pattern.matches({0x00, 0xB0}));
  EXPECT_EQ(script.triggers[1].on, Script::Trigger::On::kReset);
  EXPECT_EQ(script.triggers[1].delay, milliseconds(10));
  EXPECT_EQ(script.triggers[2].on, Script::Trigger::On::kAtr);
  EXPECT_EQ(script.triggers[2].action, CardAction::kInsert);
  EXPECT_EQ(script.triggers[3].on, Script::Trigger::On::kReady);
}

struct Bad {
  const char* text;
  const char* message;
};

void PrintTo(const Bad& bad, std::ostream* out) { *out << bad.text; }

class BadScript : public testing::TestWithParam<Bad> {};

TEST_P(BadScript, IsRefusedWithItsLine) {
  try {
    parseScript(GetParam().text);
    FAIL() << "taken";
  } catch (const ScriptError& error) {
    EXPECT_STREQ(error.what(), GetParam().message);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Lines, BadScript,
    testing::Values(Bad{"atr 3B00\notherwise 9000 then 6A82", "line 2: 'then' is too much"},
                    Bad{"atr 3B00\ncommand 00 -> 9000 then", "line 2: a response is missing"},
                    Bad{"", "line 0: no 'atr' line up to here"},
                    Bad{"card in\n\n", "line 2: no 'atr' line up to here"},
                    Bad{"atr", "line 1: an ATR is missing"},
                    Bad{"atr 3", "line 1: '3' is not hexadecimal"},
                    Bad{"atr 3B 0G", "line 1: '3B 0G' is not hexadecimal"},
                    Bad{"atr 3B00\natr 3B00", "line 2: a second 'atr' line"},
                    Bad{"atr 3B00 after", "line 1: a time is missing"},
                    Bad{"atr 3B00 after 5", "line 1: '5' is not a time such as 250ms or 3s"},
                    Bad{"atr 3B00 after 5min", "line 1: '5min' is not a time such as 250ms or 3s"},
                    Bad{"atr 3B00 after ms", "line 1: 'ms' is not a time such as 250ms or 3s"},
                    Bad{"atr 3B00 after 9999999999s", "line 1: '9999999999' is not a number"},
                    Bad{"atr 3B00 after 5ms x", "line 1: 'x' is too much"},
                    Bad{"atr none x", "line 1: 'x' is too much"},
                    Bad{"\n\nhello", "line 3: 'hello' is not a word of a script"},
                    Bad{"card", "line 1: 'in' or 'out' is missing"},
                    Bad{"card up", "line 1: 'up' is neither 'in' nor 'out'"},
                    Bad{"card in\ncard out", "line 2: a second 'card' line"},
                    Bad{"card in out", "line 1: 'out' is too much"},
                    Bad{"otherwise", "line 1: a response is missing"},
                    Bad{"otherwise 9000\notherwise 9000", "line 2: a second 'otherwise' line"},
                    Bad{"command", "line 1: a pattern is missing"},
                    Bad{"command -> 9000", "line 1: a pattern is missing"},
                    Bad{"command 00A4", "line 1: '->' is missing"},
                    Bad{"command 00A4 ->", "line 1: a response is missing"},
                    Bad{"command 00A -> 9000", "line 1: '00A' is not a pattern of bytes"},
                    Bad{"command 0? -> 9000", "line 1: '0?' is not a pattern of bytes"},
                    Bad{"command * 00 -> 9000", "line 1: '*' stands only at the end of a pattern"},
                    Bad{"command 00 -> 90 0", "line 1: '90 0' is not hexadecimal"},
                    Bad{"command 00 -> fill", "line 1: a count of bytes is missing"},
                    Bad{"command 00 -> fill x", "line 1: 'x' is not a number"},
                    Bad{"command 00 -> fill 65537", "line 1: more than 65536 bytes"},
                    Bad{"command 00 -> fill -1", "line 1: '-1' is not a number"},
                    Bad{"command 00 -> none 1", "line 1: '1' is too much"},
                    Bad{"at", "line 1: a time is missing"},
                    Bad{"at 1s", "line 1: 'insert' or 'remove' is missing"},
                    Bad{"at 1s jump", "line 1: 'jump' is neither 'insert' nor 'remove'"},
                    Bad{"at 1s insert now", "line 1: 'now' is too much"},
                    Bad{"on", "line 1: a pattern is missing"},
                    Bad{"on remove", "line 1: a pattern is missing"},
                    Bad{"on 00A4", "line 1: 'insert' or 'remove' is missing"},
                    Bad{"on ready jump", "line 1: 'jump' is neither 'insert' nor 'remove'"}),
    [](const auto& each) {
      return test::caseName(std::string(each.param.text) + ' ' + each.param.message);
    });

}  // namespace
}  // namespace zelta::agent
