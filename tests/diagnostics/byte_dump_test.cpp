#include "diagnostics/byte_dump.h"

#include <gtest/gtest.h>

#include <limits>
#include <numeric>
#include <vector>

#include "tests/support/recording_logger.h"

namespace zelta {
namespace {

using test::RecordedLine;
using Lines = std::vector<RecordedLine>;

std::vector<std::uint8_t> counting(std::size_t length) {
  std::vector<std::uint8_t> bytes(length);
  std::iota(bytes.begin(), bytes.end(), static_cast<std::uint8_t>(0));
  return bytes;
}

Lines dump(const std::vector<std::uint8_t>& bytes, std::uint64_t bytesPerLine = 16) {
  test::RecordingLogger logger;
  writeByteDump(logger, bytes.data(), bytes.size(), bytesPerLine);
  return logger.lines();
}

TEST(ByteDump, EmptyBufferIsItsLengthOnly) {
  EXPECT_EQ(dump({}), (Lines{{3, 0, "0 byte dump:"}}));
  EXPECT_EQ(dump({}, 1), (Lines{{3, 0, "0 byte dump:"}}));
  EXPECT_EQ(dump({}, 0), (Lines{{3, 0, "0 byte dump:"}}));
}

TEST(ByteDump, BytesAreTwoLowerCaseDigitsAndABlank) {
  EXPECT_EQ(dump({0, 10, 255, 0x7F, 0xA0}),
            (Lines{{3, 0, "5 byte dump:"}, {3, 0, "00 0a ff 7f a0 "}}));
}

TEST(ByteDump, SixteenBytesAreOneLine) {
  EXPECT_EQ(
      dump(counting(16)),
      (Lines{{3, 0, "16 byte dump:"}, {3, 0, "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f "}}));
}

TEST(ByteDump, SeventeenBytesAreTwoLines) {
  EXPECT_EQ(dump(counting(17)), (Lines{{3, 0, "17 byte dump:"},
                                       {3, 0, "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f "},
                                       {3, 0, "10 "}}));
}

TEST(ByteDump, LinesAreAsLongAsAsked) {
  EXPECT_EQ(dump(counting(3), 1),
            (Lines{{3, 0, "3 byte dump:"}, {3, 0, "00 "}, {3, 0, "01 "}, {3, 0, "02 "}}));
  EXPECT_EQ(dump(counting(3), 2), (Lines{{3, 0, "3 byte dump:"}, {3, 0, "00 01 "}, {3, 0, "02 "}}));
  EXPECT_EQ(dump(counting(3), 1'000), (Lines{{3, 0, "3 byte dump:"}, {3, 0, "00 01 02 "}}));
}

TEST(ByteDump, NoBytesPerLineGiveEmptyLines) {
  EXPECT_EQ(dump(counting(3), 0), (Lines{{3, 0, "3 byte dump:"}, {3, 0, ""}, {3, 0, ""}}));
}

TEST(ByteDump, LineCountIsUnsigned64BitArithmetic) {
  constexpr std::uint64_t kHighest = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(byteDumpLineCount(16, 16), 1u);
  EXPECT_EQ(byteDumpLineCount(17, 16), 2u);
  EXPECT_EQ(byteDumpLineCount(0x100000001, 16), 0x10000001u);
  EXPECT_EQ(byteDumpLineCount(kHighest - 15, 16), 0x0FFFFFFFFFFFFFFFu);
  EXPECT_EQ(byteDumpLineCount(2, kHighest), 0u);
}

TEST(ByteDump, BelowTheDebugLevelNothingIsDoneOrFormatted) {
  for (std::uint32_t threshold = 0; threshold < 3; ++threshold) {
    test::RecordingLogger logger(threshold);
    // Whoever looked at the bytes would not come back.
    writeByteDump(logger, nullptr, std::numeric_limits<std::uint64_t>::max() / 2, 16);
    EXPECT_EQ(logger.lines(), Lines());
  }
}

}  // namespace
}  // namespace zelta
