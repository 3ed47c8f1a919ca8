// What the registry file parser does with files that nobody should have written: neither crash nor
// hang, and the rest of the file stands. The time limits are processor time, with room for slow
// machines and sanitizers; the sizes are such that anything but proportional cost misses them.
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include "platform/registry.h"
#include "platform/registry_file.h"
#include "platform/utf.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace zelta::platform {
namespace {

constexpr std::size_t kMegabyte = 1024 * 1024;
constexpr std::size_t kLargest = 10 * kMegabyte;
constexpr std::size_t kLarge = 3 * kMegabyte;
constexpr double kLimit = 30;  // seconds

const std::string kHeader = "Windows Registry Editor Version 5.00\n\n";
const std::string kEnd = "\n[HKLM\\End]\n\"x\"=dword:7\n";

double processorTime() {
  return static_cast<double>(std::clock()) / static_cast<double>(CLOCKS_PER_SEC);
}

// Parses in time; the file's end is found.
ParsedRegistry parseLarge(const std::string& body) {
  const double start = processorTime();
  ParsedRegistry parsed = parseRegistryFile(kHeader + body + kEnd);
  EXPECT_LT(processorTime() - start, kLimit);
  const RegistryValue* last = parsed.content.find(u"End", u"x");
  EXPECT_NE(last, nullptr);
  if (last != nullptr) {
    EXPECT_EQ(last->data, registryDword(7));
  }
  return parsed;
}

std::string repeated(const std::string& text, std::size_t size) {
  std::string out;
  out.reserve(size + text.size());
  while (out.size() < size) out += text;
  return out;
}

TEST(RegistryFileHostile, TenMegabytesOfOrdinaryContentAreReadInTime) {
  std::string body;
  std::size_t keys = 0;
  while (body.size() < kLargest) {
    body += "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Company\\Product" + std::to_string(keys++) + "]\n";
    body += "\"text\"=\"some text of usual length\"\n\"number\"=dword:0000003c\n";
    body += "\"bytes\"=hex:01,02,03,04,\\\n  05,06,07,08\n";
  }
  const ParsedRegistry parsed = parseLarge(body);
  EXPECT_EQ(parsed.skippedCount, 0U);
  const std::u16string lastKey =
      u"SOFTWARE\\Company\\Product" + utf16FromUtf8(std::to_string(keys - 1));
  ASSERT_NE(parsed.content.find(lastKey, u"bytes"), nullptr);
  EXPECT_EQ(parsed.content.find(lastKey, u"bytes")->data.size(), 8U);
}

TEST(RegistryFileHostile, LongLinesAreReadInTime) {
  EXPECT_EQ(parseLarge(std::string(kLarge, 'x')).skippedCount, 1U);
  EXPECT_EQ(parseLarge(std::string(kLarge, ' ')).skippedCount, 0U);
  EXPECT_EQ(parseLarge(";" + std::string(kLarge, ';')).skippedCount, 0U);
  EXPECT_EQ(parseLarge("[HKLM\\" + std::string(kLarge, 'k') + "]").skippedCount, 1U);
  EXPECT_EQ(parseLarge("[" + std::string(kLarge, ']') + "x").skippedCount, 1U);
  EXPECT_EQ(parseLarge("[" + repeated("] ", kLarge) + "x").skippedCount, 1U);
  EXPECT_EQ(parseLarge("[HKLM" + repeated("\\k", kLarge) + "]").skippedCount, 1U);
  EXPECT_EQ(parseLarge("[HKLM\\K]\n\"a\"=\"" + std::string(kLarge, 'x')).skippedCount, 1U);
  EXPECT_EQ(parseLarge("[HKLM\\K]\n\"" + std::string(kLarge, '\\')).skippedCount, 1U);
  EXPECT_EQ(parseLarge("[HKLM\\K]\n\"a\"=dword:" + std::string(kLarge, '0')).skippedCount, 1U);
}

TEST(RegistryFileHostile, LongValuesAreTaken) {
  const ParsedRegistry parsed = parseLarge("[HKLM\\K]\n\"t\"=\"" + std::string(kLarge, 'x') +
                                           "\"\n\"h\"=hex:" + repeated("0a,", kLarge) + "0b");
  EXPECT_EQ(parsed.skippedCount, 0U);
  ASSERT_NE(parsed.content.find(u"K", u"t"), nullptr);
  EXPECT_EQ(parsed.content.find(u"K", u"t")->data.size(), 2 * (kLarge + 1));
  ASSERT_NE(parsed.content.find(u"K", u"h"), nullptr);
  EXPECT_EQ(parsed.content.find(u"K", u"h")->data.back(), 0x0B);
}

TEST(RegistryFileHostile, ManyLinesOfAKindAreReadInTime) {
  parseLarge(repeated("\n", kLarge));
  parseLarge(repeated("[\n", kLarge));
  parseLarge(repeated("\"\n", kLarge));
  parseLarge(repeated("[HKLM\\K]\n", kLarge));
  parseLarge("[HKLM\\K]\n" + repeated("\"a\"=\"\"\n", kLarge));
  parseLarge("[HKLM\\K]\n\"a\"=hex:" + repeated("\\\n", kLarge));
  parseLarge("[HKLM\\K]\n" + repeated("\"a\"=hex:\\\n", kLarge));
  parseLarge(repeated("[HKLM\\A\\B]\n[-HKLM\\A]\n", kLarge));
}

TEST(RegistryFileHostile, DeepKeysAreReadInTime) {
  std::string path = "[HKLM\\";
  for (int i = 0; i < 500; ++i) path += "k\\";
  std::string body;
  for (int i = 0; body.size() < kLarge; ++i) body += path + std::to_string(i) + "]\n";
  const ParsedRegistry parsed = parseLarge(body);
  EXPECT_EQ(parsed.skippedCount, 0U);
  EXPECT_TRUE(parsed.content.hasKey(u"k\\k\\k"));
  EXPECT_TRUE(parsed.content.sameSubtree(parseLarge(body).content, u"k"));
}

TEST(RegistryFileHostile, ZerosAndNoiseHoldNothing) {
  const ParsedRegistry zeros = parseRegistryFile(std::string(kMegabyte, '\0'));
  EXPECT_EQ(zeros.skippedCount, 1U);
  const ParsedRegistry wideZeros = parseRegistryFile("\xFF\xFE" + std::string(kMegabyte, '\0'));
  EXPECT_EQ(wideZeros.skippedCount, 1U);
  std::string noise;
  std::uint32_t state = 1;
  while (noise.size() < kMegabyte) {
    state = state * 1664525U + 1013904223U;
    noise.push_back(static_cast<char>(state >> 24));
  }
  EXPECT_GT(parseLarge(noise + "\n").skippedCount, 0U);
}

TEST(RegistryFileHostile, AFileCutOffAnywhereIsReadUpToThere) {
  const std::string whole = kHeader +
                            "[HKLM\\A]\n\"a\"=\"x\\\\y\"\n\"b\"=dword:00000001\n\"c\"=hex:01,\\\n"
                            "  02\n[-HKLM\\B]\n[HKLM\\C]\n@=\"end\"\n";
  const std::size_t firstValueEnd = whole.find("\n\"b\"");
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    const ParsedRegistry parsed = parseRegistryFile(whole.substr(0, size));
    EXPECT_EQ(parsed.content.find(u"A", u"a") != nullptr, size >= firstValueEnd) << size;
    EXPECT_LE(parsed.skippedCount, 1U) << size;
  }
}

TEST(RegistryFileHostile, Utf16CutOffAnywhereIsReadUpToThere) {
  std::string whole = "\xFF\xFE";
  for (const char unit : kHeader + "[HKLM\\A]\n\"a\"=\"x\"\n") whole += {unit, '\0'};
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    const ParsedRegistry parsed = parseRegistryFile(whole.substr(0, size));
    EXPECT_EQ(parsed.content.find(u"A", u"a") != nullptr, size + 2 >= whole.size() && size % 2 == 0)
        << size;
  }
}

TEST(RegistryFileHostile, TheFuzzersCorpusKeepsItsPromises) {
  std::set<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(ZELTA_CORPUS)) {
    files.insert(entry.path());
  }
  ASSERT_GE(files.size(), 10U);
  for (const auto& path : files) {
    SCOPED_TRACE(path.filename().string());
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    EXPECT_EQ(LLVMFuzzerTestOneInput(data, bytes.size()), 0);
    // And with one byte after the other changed.
    std::string changed = bytes;
    for (std::size_t i = 0; i < changed.size(); ++i) {
      for (const char byte : {'\0', '"', '\\', '\n', '[', '\xFF'}) {
        changed[i] = byte;
        ASSERT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(changed.data()),
                                         changed.size()),
                  0);
      }
      changed[i] = bytes[i];
    }
  }
}

}  // namespace
}  // namespace zelta::platform
