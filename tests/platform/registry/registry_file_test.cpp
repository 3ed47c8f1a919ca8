#include "platform/registry/registry_file.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "platform/files/utf.h"
#include "platform/registry/registry.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace zelta::platform {
namespace {

using namespace std::string_literals;
using Bytes = std::vector<std::uint8_t>;
using Numbers = std::vector<std::size_t>;

const std::string kStart =
    "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\K]\n";

struct Parsed {
  explicit Parsed(const std::string& bytes)
      : content(parseRegistryFile(bytes, [this](std::size_t number, std::u16string_view line) {
          skipped.push_back(number);
          lastSkipped = utf8FromUtf16(line);
        })) {}

  // The value of the key that `kStart` opens.
  const RegistryValue* value(std::u16string_view name) const {
    return content.find(u"SOFTWARE\\K", name);
  }

  Numbers skipped;  // line numbers
  std::string lastSkipped;
  RegistryContent content;
};

RegistryContent withKeys(const std::vector<std::u16string>& keys) {
  RegistryContent content;
  for (const std::u16string& key : keys) content.createKey(key)[u"x"] = {kRegDword, {}};
  return content;
}

TEST(RegistryContent, TextAndNumber_AreStoredLittleEndianTheTextWithAZeroUnit) {
  EXPECT_EQ(registryText(u""), (Bytes{0, 0}));
  EXPECT_EQ(registryText(u"a\u20AC"), (Bytes{'a', 0, 0xAC, 0x20, 0, 0}));
  EXPECT_EQ(registryDword(0x01020304), (Bytes{4, 3, 2, 1}));
}

TEST(RegistryContent, CapitalsOfAsciiAndLatin1_FoldAndOthersStay) {
  EXPECT_EQ(foldName(u"@ABZ[_09az"), u"@abz[_09az");
  EXPECT_EQ(foldName(u"\u00BF\u00C0\u00D6\u00D8\u00DE"), u"\u00BF\u00E0\u00F6\u00F8\u00FE");
  const std::u16string others = u"\u00D7\u00DF\u00E9\u00F7\u0100\u0391\u0416\u4E2D";
  EXPECT_EQ(foldName(others), others);
}

TEST(RegistryContent, KeyOnTheWayToAnother_Exists) {
  const RegistryContent content = withKeys({u"A\\B\\C"});
  for (const auto* path : {u"A\\B\\C", u"a\\b", u"A", u"A\\", u""}) {
    EXPECT_TRUE(content.hasKey(path));
  }
  for (const auto* path : {u"B", u"A\\B\\C\\D", u"A\\\\B"}) EXPECT_FALSE(content.hasKey(path));
  EXPECT_TRUE(RegistryContent().hasKey(u""));
}

TEST(RegistryContent, NamesOfKeyAndValue_CompareWithoutCase) {
  RegistryContent content;
  content.createKey(u"Key")[foldName(u"Name")] = {kRegDword, registryDword(5)};
  ASSERT_NE(content.find(u"KEY", u"NAME"), nullptr);
  EXPECT_EQ(content.find(u"key", u"name")->data, registryDword(5));
  EXPECT_EQ(content.find(u"key", u"other"), nullptr);
  EXPECT_EQ(content.find(u"other", u"name"), nullptr);
}

TEST(RegistryContent, DeletedKey_GoesWithEverythingBelowAndLeavesParentAndSiblings) {
  RegistryContent content = withKeys({u"A\\B\\C", u"A\\B!", u"A\\Bee"});
  content.deleteKey(u"a\\b");
  EXPECT_FALSE(content.hasKey(u"A\\B"));
  EXPECT_TRUE(content.hasKey(u"A\\B!"));
  EXPECT_TRUE(content.hasKey(u"A\\Bee"));
  content.deleteKey(u"A\\B!");
  content.deleteKey(u"A\\Bee");
  content.deleteKey(u"A\\Never");
  EXPECT_TRUE(content.hasKey(u"A"));
}

TEST(RegistryContent, ChangeAtOrBelowAKey_MakesItsSubtreeAnother) {
  using Change = std::function<void(RegistryContent&)>;
  const Change changes[] = {
      [](RegistryContent& content) { content.createKey(u"A\\B")[u"x"].data = {1}; },
      [](RegistryContent& content) { content.createKey(u"A\\B")[u"x"].type = kRegBinary; },
      [](RegistryContent& content) { content.createKey(u"A\\B")[u"y"] = {}; },
      [](RegistryContent& content) { content.createKey(u"A\\B").clear(); },
      [](RegistryContent& content) { content.createKey(u"A\\B\\C"); },
      [](RegistryContent& content) { content.deleteKey(u"A\\B"); },
  };
  const RegistryContent before = withKeys({u"A\\B"});
  EXPECT_TRUE(before.sameSubtree(withKeys({u"a\\b"}), u"A"));
  for (const Change& change : changes) {
    RegistryContent after = before;
    change(after);
    for (const auto* path : {u"A\\B", u"a\\", u""}) {
      EXPECT_FALSE(before.sameSubtree(after, path)) << &change - changes;
      EXPECT_FALSE(after.sameSubtree(before, path)) << &change - changes;
    }
  }
}

TEST(RegistryContent, ChangeElsewhere_LeavesASubtreeTheSame) {
  const RegistryContent before = withKeys({u"A\\B"});
  const RegistryContent after = withKeys({u"A", u"A\\A", u"A\\B", u"A\\B!", u"A\\Bee", u"C"});
  EXPECT_TRUE(before.sameSubtree(after, u"a\\b\\"));
  EXPECT_TRUE(before.sameSubtree(after, u"absent"));
  EXPECT_FALSE(before.sameSubtree(after, u"A"));
}

TEST(RegistryFile, EmptyFile_IsAnEmptyRegistry) {
  const Parsed parsed("");
  EXPECT_FALSE(parsed.content.hasKey(u"SOFTWARE"));
  EXPECT_EQ(parsed.skipped, Numbers());
}

TEST(RegistryFile, ValueOfEveryType_IsRead) {
  const struct {
    std::string line;
    std::uint32_t type;
    Bytes data;
  } cases[] = {
      {R"("v"="60")", kRegSz, {'6', 0, '0', 0, 0, 0}},
      {R"("v"="")", kRegSz, {0, 0}},
      {R"("V"="a\\b\"c")", kRegSz, registryText(uR"(a\b"c)")},
      {R"("v"="[;=]" ; a comment)", kRegSz, registryText(u"[;=]")},
      {"\t \"v\" \t=  \"x\"  ", kRegSz, registryText(u"x")},
      {R"("v"=dword:0000003c)", kRegDword, {60, 0, 0, 0}},
      {R"("v"=DWORD: FFFFFFFF ; a comment)", kRegDword, {255, 255, 255, 255}},
      {R"("v"=hex:)", kRegBinary, {}},
      {R"("v"=hex:01,fF,0)", kRegBinary, {1, 255, 0}},
      {R"("v"=hex: 01 , 02, ; a comment)", kRegBinary, {1, 2}},
      {R"("v"=hex(2):25,00,00,00)", kRegExpandSz, {'%', 0, 0, 0}},
      {R"("v"=hex(b):01,02,03,04,05,06,07,08)", kRegQword, {1, 2, 3, 4, 5, 6, 7, 8}},
      {R"("v"=hex(B):01)", kRegQword, {1}},
      {R"("v"=hex(ffffffff):00)", 0xFFFFFFFF, {0}},
      {"\"v\"=hex:01,\\\r\n  02,\\ \n\t03", kRegBinary, {1, 2, 3}},
      {"\"v\"=hex(2):\\\n41,00,00,00", kRegExpandSz, {'A', 0, 0, 0}},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.line);
    const Parsed parsed(kStart + each.line);
    ASSERT_NE(parsed.value(u"v"), nullptr);
    EXPECT_EQ(parsed.value(u"v")->type, each.type);
    EXPECT_EQ(parsed.value(u"v")->data, each.data);
    EXPECT_EQ(parsed.skipped, Numbers());
  }
}

TEST(RegistryFile, LaterLine_OverridesOrDeletesAnEarlierOne) {
  const Parsed parsed(kStart + "\"a\"=dword:1\n\"b\"=dword:1\n[HKLM\\Other]\n" +
                      "[hklm\\software\\k\\]\n\"A\"=\"two\"\n\"B\"= - ; deleted\n[-HKLM\\other]\n");
  EXPECT_FALSE(parsed.content.hasKey(u"Other"));
  ASSERT_NE(parsed.value(u"a"), nullptr);
  EXPECT_EQ(parsed.value(u"a")->type, kRegSz);
  EXPECT_EQ(parsed.value(u"b"), nullptr);
  EXPECT_EQ(parsed.skipped, Numbers());
}

TEST(RegistryFile, LineNotUnderstood_IsSkippedAndTheRestStands) {
  const std::string lines[] = {R"(nonsense)",
                               R"("a)",
                               R"("a")",
                               R"("a"=)",
                               R"("a"="open)",
                               R"("a"="open\")",
                               R"("a"="x\y")",
                               R"("a"="x\dword:1)",
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
                               R"("a"=hex:01,\)",
                               "\"a\"=hex:01,\\\n xx,\\\n 03"};
  for (const std::string& line : lines) {
    SCOPED_TRACE(line);
    const Parsed parsed(kStart + "\"before\"=dword:1\n" + line + "\n\"after\"=dword:2\n");
    EXPECT_NE(parsed.value(u"before"), nullptr);
    EXPECT_NE(parsed.value(u"after"), nullptr);
    EXPECT_EQ(parsed.value(u"a"), nullptr);
    EXPECT_EQ(parsed.skipped, Numbers{5});
  }
}

TEST(RegistryFile, SectionNotUnderstood_IsSkippedWithItsValuesAndTheRestStands) {
  const std::string sections[] = {"[",
                                  "[]",
                                  "[-]",
                                  "[HKLM\\A",
                                  "[HKLM\\A] x",
                                  "[HKXX\\A]",
                                  "[A]",
                                  "[HKLM\\\\A]",
                                  "[HKLM\\A\\\\B]",
                                  "[HKLM\\\\]",
                                  "[HKLM\\A\0B]"s,
                                  "[HKLMA]",
                                  "[\\HKLM\\A]"};
  for (const std::string& section : sections) {
    SCOPED_TRACE(section);
    const Parsed parsed(kStart + section +
                        "\n\"a\"=dword:1\n\"b\"=hex:01,\\\n 02\n[HKLM\\Next]\n\"c\"=dword:1\n");
    EXPECT_EQ(parsed.value(u"a"), nullptr);
    EXPECT_FALSE(parsed.content.hasKey(u"A"));
    EXPECT_EQ(parsed.content.find(u"", u"a"), nullptr);
    EXPECT_NE(parsed.content.find(u"Next", u"c"), nullptr);
    EXPECT_EQ(parsed.skipped, Numbers{4});
  }
}

TEST(RegistryFile, ValueBeforeAnyKey_IsSkipped) {
  EXPECT_EQ(Parsed("  \"a\"=dword:1 \r\n" + kStart).lastSkipped, "\"a\"=dword:1") << "trimmed";
  EXPECT_EQ(Parsed("\"a\"=dword:1\n\"b\"=hex:01,\\\n 02\n" + kStart).skipped, (Numbers{1, 2}));
}

TEST(RegistryFile, UnfinishedValue_LeavesNextSectionAndValuesStanding) {
  const Parsed parsed(kStart + "\"a\"=hex:01,\\\n; comment\n\"b\"=hex:01,\\\n[HKLM\\Next]\n" +
                      "\"c\"=hex:01,\\\n@=dword:2\n\"d\"=hex:02,\\");
  EXPECT_NE(parsed.content.find(u"Next", u""), nullptr);
  EXPECT_EQ(parsed.skipped, (Numbers{4, 6, 8, 10}));
}

TEST(RegistryFile, EveryEncoding_GivesTheSame) {
  const std::u16string text = u"[HKLM\\SOFTWARE\\K]\r\n\"n\u00E9\"=\"\U0001F600\"";
  std::string littleEndian = "\xFF\xFE";
  std::string bigEndian = "\xFE\xFF";
  for (const char16_t unit : text) {
    littleEndian += {static_cast<char>(unit & 0xFF), static_cast<char>(unit >> 8)};
    bigEndian += {static_cast<char>(unit >> 8), static_cast<char>(unit & 0xFF)};
  }
  const std::string utf8 = utf8FromUtf16(text);
  for (const std::string& bytes : {utf8, "\xEF\xBB\xBF" + utf8, littleEndian, bigEndian}) {
    const Parsed parsed(bytes);
    EXPECT_EQ(parsed.skipped, Numbers());
    ASSERT_NE(parsed.value(u"N\u00C9"), nullptr);
    EXPECT_EQ(parsed.value(u"n\u00E9")->data, registryText(u"\U0001F600"));
  }
}

TEST(RegistryFile, OtherRoots_AreIgnoredWithoutMention) {
  const Parsed parsed("[HKEY_CURRENT_USER\\K]\n\"a\"=dword:1\n[-HKEY_USERS\\K]\nnonsense\n" +
                      kStart + "\"c\"=dword:1\n");
  EXPECT_FALSE(parsed.content.hasKey(u"K"));
  EXPECT_NE(parsed.value(u"c"), nullptr);
  EXPECT_EQ(parsed.skipped, Numbers());
}

TEST(RegistryFile, RootItselfAndNamesWithBrackets_HoldValues) {
  const Parsed parsed("[HKLM] ; see [1]\n\"a\"=dword:1\n[HKLM\\a]b[c]\n@=\"x\"\n;[HKLM\\No]\n");
  EXPECT_NE(parsed.content.find(u"", u"a"), nullptr);
  EXPECT_NE(parsed.content.find(u"a]b[c", u""), nullptr);
  EXPECT_FALSE(parsed.content.hasKey(u"No"));
  EXPECT_EQ(parsed.skipped, Numbers());
}

TEST(RegistryFile, FileCutOffAnywhere_IsReadUpToThere) {
  const std::string whole = kStart + "\"a\"=\"x\\\\y\"\n\"b\"=hex:01,\\\n  02\n[-HKLM\\B]\n@=\"\"";
  const std::size_t firstValueEnd = whole.find("\n\"b\"");
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    const Parsed parsed(whole.substr(0, size));
    EXPECT_EQ(parsed.value(u"a") != nullptr, size >= firstValueEnd) << size;
    EXPECT_LE(parsed.skipped.size(), 1U) << size;
  }
}

// If the cost is not proportional to the size, this takes minutes.
TEST(RegistryFile, HostileMegabyte_IsReadInSecondsAndItsEndIsFound) {
  const std::string bodies[] = {"x",           " ",
                                "]",           "[HKLM\\A]] ",
                                "\\k",         "\"",
                                "\\",          "\n",
                                "[\n",         "\"a\"=hex:\\\n",
                                "0a,\\\n",     ";\\\n",
                                "\0"s,         "[HKLM\\A\\B]\n[-HKLM\\A]\n",
                                "\"a\"=\"\"\n"};
  const std::string prefixes[] = {"", "[HKLM\\", "[HKLM\\K]\n", "[HKLM\\K]\n\"a\"=hex:"};
  const std::clock_t start = std::clock();
  for (const std::string& prefix : prefixes) {
    for (const std::string& body : bodies) {
      std::string text = prefix;
      while (text.size() < 1024 * 1024) text += body;
      const Parsed parsed(text + "\n[HKLM\\End]\n\"x\"=dword:7\n");
      EXPECT_NE(parsed.content.find(u"End", u"x"), nullptr) << prefix << body;
    }
  }
  EXPECT_LT((std::clock() - start) / CLOCKS_PER_SEC, 60);
}

TEST(RegistryFile, FuzzersCorpus_KeepsItsPromisesWithAnyByteChanged) {
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(ZELTA_CORPUS)) {
    ++files;
    std::ifstream file(entry.path(), std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(file), {}};
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    EXPECT_EQ(LLVMFuzzerTestOneInput(data, bytes.size()), 0) << entry.path();
    for (char& byte : bytes) {
      const char before = byte;
      for (const char changed : {'\0', '"', '\\', '\n', '[', '\xFF'}) {
        byte = changed;
        ASSERT_EQ(LLVMFuzzerTestOneInput(data, bytes.size()), 0) << entry.path();
      }
      byte = before;
    }
  }
  EXPECT_GE(files, 10U);
}

}  // namespace
}  // namespace zelta::platform
