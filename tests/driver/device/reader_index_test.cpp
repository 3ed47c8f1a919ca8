#include "driver/device/reader_index.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace zelta {
namespace {

constexpr char kNoPrefix[] = "Device name prefix not found";
constexpr char kNoNumber[] = "invalid stoi argument";
constexpr char kTooLarge[] = "stoi argument out of range";

// The index, or what the failure says.
std::string parse(const wchar_t* name) {
  try {
    return std::to_string(parseReaderIndex(name));
  } catch (const std::invalid_argument& failure) {
    return failure.what();
  } catch (const std::out_of_range& failure) {
    return failure.what();
  }
}

struct Row {
  const wchar_t* name;
  const char* parsed;
};

class ReaderIndex : public testing::TestWithParam<Row> {};

TEST_P(ReaderIndex, FileName_HasTheNumberAfterTheFirstPrefixOrFails) {
  EXPECT_EQ(parse(GetParam().name), GetParam().parsed);
}

INSTANTIATE_TEST_SUITE_P(
    Names, ReaderIndex,
    testing::Values(Row{L"\\dev0", "0"}, Row{L"\\DEV0", "0"}, Row{L"\\dev12", "12"},
                    Row{L"dev3", "3"}, Row{L"\\dev7abc", "7"}, Row{L"\\dev007", "7"},
                    Row{L"\\dev  5", "5"}, Row{L"\\dev\t+5", "5"}, Row{L"\\dev-1", "4294967295"},
                    Row{L"\\dev0x10", "0"}, Row{L"\\dev2147483647", "2147483647"},
                    Row{L"\\dev-2147483648", "2147483648"}, Row{L"\\dev4dev5", "4"},
                    Row{L"\\??\\x#dev6", "6"}, Row{L"", kNoPrefix}, Row{L"\\", kNoPrefix},
                    Row{L"de0", kNoPrefix}, Row{L"\\reader0", kNoPrefix}, Row{L"d e v0", kNoPrefix},
                    Row{L"\\dev", kNoNumber}, Row{L"\\devx", kNoNumber}, Row{L"\\dev-", kNoNumber},
                    Row{L"\\dev- 1", kNoNumber}, Row{L"\\devices\\dev3", kNoNumber},
                    Row{L"\\dev99999999999", kTooLarge}, Row{L"\\dev2147483648", kTooLarge},
                    Row{L"\\dev-2147483649", kTooLarge},
                    Row{L"\\dev99999999999999999999999999", kTooLarge}));

TEST(ReferenceString, Index_FollowsThePrefixInDecimal) {
  EXPECT_EQ(readerReferenceString(0), L"dev0");
  EXPECT_EQ(readerReferenceString(4294967295), L"dev4294967295");
  EXPECT_EQ(parseReaderIndex(readerReferenceString(31)), 31u);
}

}  // namespace
}  // namespace zelta
