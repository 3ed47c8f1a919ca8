#include "platform/registry_file.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "platform/registry.h"
#include "platform/utf.h"

namespace zelta::platform {
namespace {

using namespace std::string_literals;
using Bytes = std::vector<std::uint8_t>;

const std::string kHeader = "Windows Registry Editor Version 5.00\r\n\r\n";
const std::string kSection = "[HKEY_LOCAL_MACHINE\\SOFTWARE\\K]\n";

// The value of a line in a key of its own.
const RegistryValue* valueIn(const ParsedRegistry& parsed, std::u16string_view name) {
  return parsed.content.find(u"SOFTWARE\\K", name);
}

ParsedRegistry parseLines(const std::string& lines) {
  return parseRegistryFile(kHeader + kSection + lines);
}

std::vector<std::size_t> numbersOf(const ParsedRegistry& parsed) {
  std::vector<std::size_t> numbers;
  for (const SkippedLine& line : parsed.skipped) numbers.push_back(line.number);
  return numbers;
}

TEST(RegistryFile, EmptyFileIsAnEmptyRegistry) {
  const ParsedRegistry parsed = parseRegistryFile("");
  EXPECT_FALSE(parsed.content.hasKey(u"SOFTWARE"));
  EXPECT_EQ(parsed.skippedCount, 0U);
}

TEST(RegistryFile, EveryTypeIsRead) {
  const struct {
    const char* line;
    std::uint32_t type;
    Bytes data;
  } cases[] = {
      {R"("v"="60")", kRegSz, {'6', 0, '0', 0, 0, 0}},
      {R"("v"="")", kRegSz, {0, 0}},
      {R"("v"="a\\b\"c")", kRegSz, registryText(uR"(a\b"c)")},
      {R"("v"="[;=]")", kRegSz, registryText(u"[;=]")},
      {R"("v"=dword:0000003c)", kRegDword, {60, 0, 0, 0}},
      {R"("v"=dword:FFFFFFFF)", kRegDword, {255, 255, 255, 255}},
      {R"("v"=DWORD:3)", kRegDword, {3, 0, 0, 0}},
      {R"("v"=hex:)", kRegBinary, {}},
      {R"("v"=hex:01,fF,0)", kRegBinary, {1, 255, 0}},
      {R"("v"=hex:01,02,)", kRegBinary, {1, 2}},
      {R"("v"=hex(2):25,00,00,00)", kRegExpandSz, {'%', 0, 0, 0}},
      {R"("v"=hex(b):01,02,03,04,05,06,07,08)", kRegQword, {1, 2, 3, 4, 5, 6, 7, 8}},
      {R"("v"=hex(B):01)", kRegQword, {1}},
      {R"("v"=hex(7):61,00,00,00,00,00)", 7, {'a', 0, 0, 0, 0, 0}},
      {R"("v"=hex(0):)", 0, {}},
      {R"("v"=hex(ffffffff):00)", 0xFFFFFFFF, {0}},
      {R"("v"=hex(4):01,00,00,00)", kRegDword, {1, 0, 0, 0}},
  };
  for (const auto& each : cases) {
    const ParsedRegistry parsed = parseLines(each.line);
    ASSERT_NE(valueIn(parsed, u"v"), nullptr) << each.line;
    EXPECT_EQ(valueIn(parsed, u"v")->type, each.type) << each.line;
    EXPECT_EQ(valueIn(parsed, u"v")->data, each.data) << each.line;
    EXPECT_EQ(parsed.skippedCount, 0U) << each.line;
  }
}

TEST(RegistryFile, BlanksAndCommentsAreAllowedAroundEverything) {
  const ParsedRegistry parsed = parseRegistryFile(
      "; first\n  Windows Registry Editor Version 5.00  \n\n  ;[HKLM\\No]\n"
      "\t[HKLM\\SOFTWARE\\K]  ; where\n"
      "  \"t\" \t=  \"x;y\"  ; a text\n"
      "\"d\" = dword: 3 ;a number\n"
      "@ = \"default\"\n"
      "\"h\"= hex: 01 , 02 ; bytes\n"
      "\"gone\"=dword:1\n\"gone\"= - ; not any more\n");
  EXPECT_EQ(parsed.skippedCount, 0U);
  ASSERT_NE(valueIn(parsed, u"t"), nullptr);
  EXPECT_EQ(valueIn(parsed, u"t")->data, registryText(u"x;y"));
  ASSERT_NE(valueIn(parsed, u"d"), nullptr);
  EXPECT_EQ(valueIn(parsed, u"d")->data, registryDword(3));
  ASSERT_NE(valueIn(parsed, u""), nullptr);
  EXPECT_EQ(valueIn(parsed, u"")->data, registryText(u"default"));
  ASSERT_NE(valueIn(parsed, u"h"), nullptr);
  EXPECT_EQ(valueIn(parsed, u"h")->data, (Bytes{1, 2}));
  EXPECT_EQ(valueIn(parsed, u"gone"), nullptr);
  EXPECT_FALSE(parsed.content.hasKey(u"No"));
}

TEST(RegistryFile, EveryEncodingGivesTheSame) {
  const std::u16string text =
      u"Windows Registry Editor Version 5.00\r\n[HKLM\\SOFTWARE\\K]\r\n\"n\u00E9\"=\"\U0001F600\"";
  std::string littleEndian = "\xFF\xFE";
  std::string bigEndian = "\xFE\xFF";
  for (const char16_t unit : text) {
    littleEndian += {static_cast<char>(unit & 0xFF), static_cast<char>(unit >> 8)};
    bigEndian += {static_cast<char>(unit >> 8), static_cast<char>(unit & 0xFF)};
  }
  const std::string utf8 = utf8FromUtf16(text);
  for (const std::string& bytes : {utf8, "\xEF\xBB\xBF" + utf8, littleEndian, bigEndian}) {
    const ParsedRegistry parsed = parseRegistryFile(bytes);
    EXPECT_EQ(parsed.skippedCount, 0U);
    ASSERT_NE(valueIn(parsed, u"N\u00C9"), nullptr);
    EXPECT_EQ(valueIn(parsed, u"n\u00E9")->data, registryText(u"\U0001F600"));
  }
}

TEST(RegistryFile, EveryLineEndCountsAsOne) {
  for (const std::string end : {"\n", "\r\n", "\r"}) {
    const ParsedRegistry parsed = parseRegistryFile(
        "Windows Registry Editor Version 5.00" + end + end + "[HKLM\\SOFTWARE\\K]" + end +
        "\"a\"=dword:1" + end + "what" + end + "\"b\"=hex:01,\\" + end + "  02" + end + "ever");
    ASSERT_NE(valueIn(parsed, u"a"), nullptr);
    ASSERT_NE(valueIn(parsed, u"b"), nullptr);
    EXPECT_EQ(valueIn(parsed, u"b")->data, (Bytes{1, 2}));
    EXPECT_EQ(numbersOf(parsed), (std::vector<std::size_t>{5, 8}));
  }
}

TEST(RegistryFile, BytesGoOnAfterABackslash) {
  const ParsedRegistry parsed = parseLines(
      "\"a\"=hex:01,02,\\\n  03,\\ \n\t04\n\"b\"=hex(2):\\\n41,00,00,00\n\"c\"=hex:01\\\n,02\n"
      "\"d\"=dword:1\n");
  ASSERT_NE(valueIn(parsed, u"a"), nullptr);
  EXPECT_EQ(valueIn(parsed, u"a")->data, (Bytes{1, 2, 3, 4}));
  ASSERT_NE(valueIn(parsed, u"b"), nullptr);
  EXPECT_EQ(valueIn(parsed, u"b")->data, (Bytes{'A', 0, 0, 0}));
  EXPECT_EQ(valueIn(parsed, u"c"), nullptr);
  EXPECT_NE(valueIn(parsed, u"d"), nullptr);
}

TEST(RegistryFile, AContinuedValueThatIsNotUnderstoodIsSkippedAsAWhole) {
  const ParsedRegistry parsed =
      parseLines("\"a\"=hex:01,\\\n  xx,\\\n  03\n\"b\"=dword:1\n\"c\"=hex:zz,\\\n 01,\\\n 02\n");
  EXPECT_EQ(valueIn(parsed, u"a"), nullptr);
  EXPECT_NE(valueIn(parsed, u"b"), nullptr);
  EXPECT_EQ(valueIn(parsed, u"c"), nullptr);
  EXPECT_EQ(numbersOf(parsed), (std::vector<std::size_t>{4, 8}));
}

TEST(RegistryFile, AContinuationThatNeverComesLeavesTheRestStanding) {
  const ParsedRegistry parsed = parseLines(
      "\"a\"=hex:01,\\\n\"b\"=dword:1\n\"c\"=hex:01,\\\n[HKLM\\Next]\n\"d\"=dword:2\n"
      "\"e\"=hex:02,\\");
  EXPECT_EQ(valueIn(parsed, u"a"), nullptr);
  EXPECT_NE(valueIn(parsed, u"b"), nullptr);
  EXPECT_NE(parsed.content.find(u"Next", u"d"), nullptr);
  EXPECT_EQ(parsed.content.find(u"Next", u"e"), nullptr);
  EXPECT_EQ(numbersOf(parsed), (std::vector<std::size_t>{4, 6, 9}));
}

TEST(RegistryFile, LaterLinesOverrideEarlierOnes) {
  const ParsedRegistry parsed = parseRegistryFile(
      kHeader +
      "[HKLM\\SOFTWARE\\K]\n\"a\"=dword:1\n\"A\"=\"two\"\n\"b\"=dword:1\n\"c\"=dword:1\n\"B\"=-\n"
      "[HKLM\\Other]\n[hkey_local_machine\\software\\k]\n\"c\"=dword:3\n");
  EXPECT_EQ(valueIn(parsed, u"a")->type, kRegSz);
  EXPECT_EQ(valueIn(parsed, u"b"), nullptr);
  EXPECT_EQ(valueIn(parsed, u"c")->data, registryDword(3));
}

TEST(RegistryFile, DeletedKeysGoWithAllTheyHaveHeldSoFar) {
  const ParsedRegistry parsed = parseRegistryFile(
      kHeader + "[HKLM\\A\\B\\C]\n\"x\"=dword:1\n[-HKEY_LOCAL_MACHINE\\a\\b]\n[HKLM\\A\\B\\D]\n");
  EXPECT_FALSE(parsed.content.hasKey(u"A\\B\\C"));
  EXPECT_TRUE(parsed.content.hasKey(u"A\\B\\D"));
  EXPECT_EQ(parsed.skippedCount, 0U);
}

TEST(RegistryFile, OtherRootsAreSkippedWithoutAWord) {
  const ParsedRegistry parsed = parseRegistryFile(
      kHeader +
      "[HKEY_CURRENT_USER\\K]\n\"a\"=dword:1\n\"b\"=hex:01,\\\n 02\n[-HKCU\\K]\n\"x\"=dword:2\n"
      "[HKEY_CLASSES_ROOT\\K]\n[HKEY_USERS\\K]\nnonsense\n[HKEY_CURRENT_CONFIG]\n"
      "[HKLM\\SOFTWARE\\K]\n\"c\"=dword:1\n");
  EXPECT_FALSE(parsed.content.hasKey(u"K"));
  EXPECT_NE(valueIn(parsed, u"c"), nullptr);
  EXPECT_EQ(parsed.skippedCount, 0U);
}

TEST(RegistryFile, TheRootItselfHoldsValues) {
  const ParsedRegistry parsed = parseRegistryFile(kHeader + "[HKLM]\n\"a\"=dword:1\n[HKLM\\]\n");
  EXPECT_NE(parsed.content.find(u"", u"a"), nullptr);
  EXPECT_EQ(parsed.skippedCount, 0U);
}

TEST(RegistryFile, BracketsInKeyNamesBelongToThem) {
  const ParsedRegistry parsed = parseRegistryFile(kHeader + "[HKLM\\a]b[c]\n\"x\"=dword:1\n");
  EXPECT_NE(parsed.content.find(u"a]b[c", u"x"), nullptr);
}

TEST(RegistryFile, LinesThatAreNotUnderstoodAreSkippedAndTheRestStands) {
  const std::string lines[] = {
      R"(nonsense)",
      R"("a)",
      R"("a")",
      R"("a"=)",
      R"("a"="open)",
      R"("a"="open\")",
      R"("a"="x\y")",
      R"("a"="x" y)",
      R"("a\n"=dword:1)",
      R"("a"=dword:)",
      R"("a"=dword:g)",
      R"("a"=dword:123456789)",
      R"("a"=dword:-1)",
      R"("a"=word:1)",
      R"("a"=hex)",
      R"("a"=hex:1 2)",
      R"("a"=hex:123)",
      R"("a"=hex:,)",
      R"("a"=hex(:01)",
      R"("a"=hex():01)",
      R"("a"=hex(123456789):01)",
      R"("a"=hex(x):01)",
      R"("a"=-1)",
      R"(@)",
      R"(@"a"=dword:1)",
      R"(a=dword:1)",
      "\"a\"=\"x\0y\""s,
      "\0"s,
      R"(REGEDIT4)",
  };
  for (const std::string& line : lines) {
    const ParsedRegistry parsed =
        parseLines("\"before\"=dword:1\n" + line + "\n\"after\"=dword:2\n");
    EXPECT_NE(valueIn(parsed, u"before"), nullptr) << line;
    EXPECT_NE(valueIn(parsed, u"after"), nullptr) << line;
    EXPECT_EQ(valueIn(parsed, u"a"), nullptr) << line;
    EXPECT_EQ(numbersOf(parsed), (std::vector<std::size_t>{5})) << line;
    EXPECT_EQ(parsed.skippedCount, 1U) << line;
  }
}

TEST(RegistryFile, ValuesOfAKeyThatIsNotUnderstoodGoNowhere) {
  const std::string sections[] = {
      "[",        "[]",          "[-]",
      "[HKLM\\A", "[HKLM\\A] x", "[HKXX\\A]",
      "[A]",      "[HKLM\\\\A]", "[HKLM\\A\\\\B]",
      "[-HKLM]",  "[HKLM\\\\]",  "[HKLM\\A\0B]"s,
      "[HKLMA]",  "[\\HKLM\\A]", "[HKLM\\" + std::string(256, 'x') + "]",
  };
  for (const std::string& section : sections) {
    const ParsedRegistry parsed = parseLines(
        section + "\n\"a\"=dword:1\n\"b\"=hex:01,\\\n 02\n[HKLM\\Next]\n\"c\"=dword:1\n");
    EXPECT_EQ(valueIn(parsed, u"a"), nullptr) << section;
    EXPECT_EQ(parsed.content.find(u"A", u"a"), nullptr) << section;
    EXPECT_EQ(parsed.content.find(u"", u"a"), nullptr) << section;
    EXPECT_NE(parsed.content.find(u"Next", u"c"), nullptr) << section;
    EXPECT_EQ(numbersOf(parsed), (std::vector<std::size_t>{4})) << section;
  }
}

TEST(RegistryFile, ValuesWithoutAKeyAreNotUnderstood) {
  const ParsedRegistry parsed = parseRegistryFile(
      kHeader + "\"a\"=dword:1\n\"b\"=hex:01,\\\n 02\n[-HKLM\\A]\n\"c\"=\"x\"\n\"d\"=-\n");
  EXPECT_EQ(numbersOf(parsed), (std::vector<std::size_t>{3, 4, 7, 8}));
  EXPECT_FALSE(parsed.content.hasKey(u"A"));
}

TEST(RegistryFile, AFileWithoutTheHeaderIsReadAllTheSame) {
  const ParsedRegistry parsed = parseRegistryFile(kSection + "\"a\"=dword:1");
  EXPECT_NE(valueIn(parsed, u"a"), nullptr);
  EXPECT_EQ(parsed.skippedCount, 0U);
}

TEST(RegistryFile, TheSameBadLineHasTheSameIdentityWhereverItStands) {
  const ParsedRegistry parsed = parseLines("bad\n\"a\"=dword:1\nbad\nworse\n");
  ASSERT_EQ(parsed.skipped.size(), 3U);
  EXPECT_EQ(parsed.skipped[0].identity, parsed.skipped[1].identity);
  EXPECT_NE(parsed.skipped[0].identity, parsed.skipped[2].identity);
}

TEST(RegistryFile, ManyBadLinesAreAllCountedAndSomeListed) {
  std::string lines;
  for (int i = 0; i < 1000; ++i) lines += "bad " + std::to_string(i) + "\n";
  const ParsedRegistry parsed = parseLines(lines);
  EXPECT_EQ(parsed.skippedCount, 1000U);
  EXPECT_EQ(parsed.skipped.size(), ParsedRegistry::kListedLines);
}

TEST(RegistryFile, NamesUpToTheRegistrysLimitsAreTaken) {
  std::string path = "[HKLM";
  for (int i = 0; i < 512; ++i) path += "\\k";
  const std::string longest(255, 'n');
  const std::string valueName(16383, 'v');
  const ParsedRegistry parsed =
      parseRegistryFile(path + "]\n\"a\"=dword:1\n" + path + "\\k]\n[HKLM\\" + longest + "]\n\"" +
                        valueName + "\"=dword:1\n\"" + valueName + "v\"=dword:1\n");
  EXPECT_TRUE(parsed.content.hasKey(utf16FromUtf8(longest)));
  EXPECT_NE(parsed.content.find(utf16FromUtf8(longest), utf16FromUtf8(valueName)), nullptr);
  EXPECT_EQ(numbersOf(parsed), (std::vector<std::size_t>{3, 6}));
}

}  // namespace
}  // namespace zelta::platform
