#include "diagnostics/byte_dump.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "tests/doubles/logging/recording_logger.h"

namespace zelta {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Texts = std::vector<std::string>;
using Lines = std::vector<test::RecordedLine>;

struct Case {
  const char* name;
  Bytes bytes;
  std::uint64_t bytesPerLine;
  Texts lines;
};

class ByteDump : public testing::TestWithParam<Case> {};

TEST_P(ByteDump, Bytes_AreWrittenAsDebugRecords) {
  test::RecordingLogger logger;
  writeByteDump(logger, GetParam().bytes.data(), GetParam().bytes.size(), GetParam().bytesPerLine);
  Lines expected;
  for (const std::string& line : GetParam().lines) expected.push_back({3, 0, line});
  EXPECT_EQ(logger.lines(), expected);
}

const Case kCases[] = {
    {"EmptyBuffer_ItsLengthOnly", {}, 16, {"0 byte dump:"}},
    {"EmptyBufferWithNoBytesPerLine_ItsLengthOnly", {}, 0, {"0 byte dump:"}},
    {"Bytes_TwoLowerCaseDigitsAndABlank",
     {0, 10, 255, 0x7F, 0xA0},
     16,
     {"5 byte dump:", "00 0a ff 7f a0 "}},
    {"SixteenBytes_OneLine",
     Bytes(16, 0x0B),
     16,
     {"16 byte dump:", "0b 0b 0b 0b 0b 0b 0b 0b 0b 0b 0b 0b 0b 0b 0b 0b "}},
    {"SeventeenBytes_TwoLines",
     Bytes(17, 0x0B),
     16,
     {"17 byte dump:", "0b 0b 0b 0b 0b 0b 0b 0b 0b 0b 0b 0b 0b 0b 0b 0b ", "0b "}},
    {"OneBytePerLine", {1, 2, 3}, 1, {"3 byte dump:", "01 ", "02 ", "03 "}},
    {"TwoBytesPerLine", {1, 2, 3}, 2, {"3 byte dump:", "01 02 ", "03 "}},
    {"MoreBytesPerLineThanThereAre", {1, 2, 3}, 1'000, {"3 byte dump:", "01 02 03 "}},
    {"NoBytesPerLine_EmptyLines", {1, 2, 3}, 0, {"3 byte dump:", "", ""}},
};

INSTANTIATE_TEST_SUITE_P(Diagnostics, ByteDump, testing::ValuesIn(kCases),
                         [](const auto& each) { return each.param.name; });

TEST(ByteDumpLineCount, HighNumbers_AreUnsigned64BitArithmetic) {
  constexpr std::uint64_t kHighest = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(byteDumpLineCount(0x100000001, 16), 0x10000001u);
  EXPECT_EQ(byteDumpLineCount(kHighest - 15, 16), 0x0FFFFFFFFFFFFFFFu);
  EXPECT_EQ(byteDumpLineCount(2, kHighest), 0u);
}

TEST(ByteDumpBelowItsLevel, ThresholdBelowDebug_NothingIsWrittenOrFormatted) {
  for (std::uint32_t threshold = 0; threshold < 3; ++threshold) {
    test::RecordingLogger logger(threshold);
    // Reading the bytes would not return.
    writeByteDump(logger, nullptr, std::numeric_limits<std::uint64_t>::max() / 2, 16);
    EXPECT_EQ(logger.lines(), Lines());
  }
}

}  // namespace
}  // namespace zelta
