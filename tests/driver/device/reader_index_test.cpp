#include "driver/device/reader_index.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace zelta {
namespace {

struct Row {
  const wchar_t* name;
  std::uint32_t index;
};

class ReaderIndex : public testing::TestWithParam<Row> {};

TEST_P(ReaderIndex, IsTheNumberBehindTheFirstPrefix) {
  EXPECT_EQ(parseReaderIndex(GetParam().name), GetParam().index);
}

INSTANTIATE_TEST_SUITE_P(Names, ReaderIndex,
                         testing::Values(Row{L"\\dev0", 0}, Row{L"\\DEV0", 0}, Row{L"\\dev12", 12},
                                         Row{L"dev3", 3}, Row{L"\\dev7abc", 7}, Row{L"\\dev007", 7},
                                         Row{L"\\dev  5", 5}, Row{L"\\dev\t+5", 5},
                                         Row{L"\\dev-1", 0xFFFFFFFF}, Row{L"\\dev0x10", 0},
                                         Row{L"\\dev2147483647", 2147483647},
                                         Row{L"\\dev-2147483648", 0x80000000},
                                         Row{L"\\dev4dev5", 4}, Row{L"\\??\\x#dev6", 6}));

template <typename Exception>
std::string failureOf(const wchar_t* name) {
  try {
    parseReaderIndex(name);
  } catch (const Exception& failure) {
    return failure.what();
  }
  return "no failure";
}

TEST(ReaderIndexFailure, WithoutPrefixSaysSo) {
  for (const wchar_t* name : {L"", L"\\", L"de0", L"\\reader0", L"d e v0"}) {
    EXPECT_EQ(failureOf<std::invalid_argument>(name), "Device name prefix not found");
  }
}

TEST(ReaderIndexFailure, WithoutDigitSaysSo) {
  for (const wchar_t* name : {L"\\dev", L"\\devx", L"\\dev-", L"\\dev- 1", L"\\devices\\dev3"}) {
    EXPECT_EQ(failureOf<std::invalid_argument>(name), "invalid stoi argument");
  }
}

TEST(ReaderIndexFailure, OutOf32BitsSaysSo) {
  for (const wchar_t* name : {L"\\dev99999999999", L"\\dev2147483648", L"\\dev-2147483649",
                              L"\\dev99999999999999999999999999"}) {
    EXPECT_EQ(failureOf<std::out_of_range>(name), "stoi argument out of range");
  }
}

TEST(ReferenceString, IsThePrefixAndTheDecimalIndex) {
  EXPECT_EQ(readerReferenceString(0), L"dev0");
  EXPECT_EQ(readerReferenceString(12), L"dev12");
  EXPECT_EQ(readerReferenceString(4294967295), L"dev4294967295");
  EXPECT_EQ(parseReaderIndex(readerReferenceString(31)), 31u);
}

}  // namespace
}  // namespace zelta
