#include "driver/device/reader_index.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>

#include "driver/device/narrow_text.h"

namespace zelta {
namespace {

constexpr char kNoPrefix[] = "Device name prefix not found";
constexpr char kNoNumber[] = "invalid stoi argument";
constexpr char kTooLarge[] = "stoi argument out of range";

// The index, or the failure's message.
std::string parse(const wchar_t* name) {
  try {
    return std::to_string(parseReaderIndex(name));
  } catch (const std::invalid_argument& failure) {
    return failure.what();
  } catch (const std::out_of_range& failure) {
    return failure.what();
  }
}

TEST(ReaderIndex, FileName_HasTheNumberAfterTheFirstPrefixOrFails) {
  const std::pair<const wchar_t*, const char*> rows[] = {
      {L"\\dev0", "0"},
      {L"\\DEV0", "0"},
      {L"\\dev12", "12"},
      {L"dev3", "3"},
      {L"\\dev7abc", "7"},
      {L"\\dev007", "7"},
      {L"\\dev  5", "5"},
      {L"\\dev\t+5", "5"},
      {L"\\dev-1", "4294967295"},
      {L"\\dev0x10", "0"},
      {L"\\dev2147483647", "2147483647"},
      {L"\\dev-2147483648", "2147483648"},
      {L"\\dev4dev5", "4"},
      {L"\\??\\x#dev6", "6"},
      {L"", kNoPrefix},
      {L"\\", kNoPrefix},
      {L"de0", kNoPrefix},
      {L"\\reader0", kNoPrefix},
      {L"d e v0", kNoPrefix},
      {L"\\dev", kNoNumber},
      {L"\\devx", kNoNumber},
      {L"\\dev-", kNoNumber},
      {L"\\dev- 1", kNoNumber},
      {L"\\devices\\dev3", kNoNumber},
      {L"\\dev99999999999", kTooLarge},
      {L"\\dev2147483648", kTooLarge},
      {L"\\dev-2147483649", kTooLarge},
      {L"\\dev99999999999999999999999999", kTooLarge}};
  for (const auto& [name, parsed] : rows) EXPECT_EQ(parse(name), parsed) << narrowText(name);
}

TEST(ReferenceString, Index_FollowsThePrefixInDecimal) {
  EXPECT_EQ(readerReferenceString(0), L"dev0");
  EXPECT_EQ(readerReferenceString(4294967295), L"dev4294967295");
  EXPECT_EQ(parseReaderIndex(readerReferenceString(31)), 31u);
}

}  // namespace
}  // namespace zelta
