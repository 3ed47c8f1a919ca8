#include "contract/bytes.h"

#include <gtest/gtest.h>

namespace zelta {
namespace {

TEST(LittleEndian, Number_TravelsLowestByteFirstAndComesBack) {
  const std::pair<std::uint32_t, Bytes> rows[] = {{2, {0x02, 0, 0, 0}},
                                                  {0x12345678, {0x78, 0x56, 0x34, 0x12}},
                                                  {0xFFFFFFFE, {0xFE, 0xFF, 0xFF, 0xFF}}};
  for (const auto& [number, bytes] : rows) {
    EXPECT_EQ(numberBytes(number), bytes);
    const auto array = toLittleEndian(number);
    EXPECT_EQ(Bytes(array.begin(), array.end()), bytes);
    EXPECT_EQ(loadLittleEndian(bytes.data()), number);
  }
}

TEST(Hex, Bytes_AreWrittenAsTwoUppercaseDigitsEach) {
  EXPECT_EQ(toHex({}), "");
  EXPECT_EQ(toHex({0x00, 0x9A, 0xFF}), "009AFF");
}

TEST(Hex, TextInBothCasesWithSpacesBetweenBytes_IsRead) {
  EXPECT_EQ(parseHex("00 9a Ff\t01"), (Bytes{0x00, 0x9A, 0xFF, 0x01}));
  EXPECT_EQ(parseHex(""), Bytes());
}

TEST(Hex, TextThatIsNotHexadecimal_IsRefused) {
  for (const char* text : {"0", "0 0", "0g", "g0", "00 0", "0x00", "-1"}) {
    EXPECT_FALSE(parseHex(text)) << text;
  }
}

}  // namespace
}  // namespace zelta
