#include "pcsc/atr.h"

#include <gtest/gtest.h>

#include "contract/bytes.h"

namespace zelta::pcsc {
namespace {

struct Case {
  const char* name;
  Bytes bytes;
  bool possible;
};

const Case kCases[] = {
    {"Nothing", {}, false},
    {"TsAlone", {0x3B}, false},
    {"NothingAnnounced", {0x3B, 0x00}, true},
    {"InverseConvention", {0x3F, 0x00}, true},
    {"OtherTs", {0x3C, 0x00}, false},
    {"StatusWords", {0x90, 0x00}, false},
    {"Tck", {0x3B, 0x00, 0x00}, true},
    {"OneByteTooMany", {0x3B, 0x00, 0x00, 0x00}, false},
    {"TdsWithoutTck", {0x3B, 0x95, 0x13, 0x81, 0x01, 0, 0, 0, 0, 0}, true},
    {"TdsWithTck", {0x3B, 0x95, 0x13, 0x81, 0x01, 0, 0, 0, 0, 0, 0x06}, true},
    {"TdsWithWrongTck", {0x3B, 0x95, 0x13, 0x81, 0x01, 0, 0, 0, 0, 0, 0xFF}, true},
    {"HistoricalBytesMissing", {0x3B, 0x95, 0x13, 0x81, 0x01}, false},
    {"OneHistoricalByteMissing", {0x3B, 0x95, 0x13, 0x81, 0x01, 0, 0, 0, 0}, false},
    {"InterfaceBytesMissing", {0x3B, 0x30, 0x11}, false},
    {"FirstTdMissing", {0x3B, 0x80}, false},
    {"SecondTdMissing", {0x3B, 0x80, 0x80}, false},
    {"TdChainWithoutEnd", Bytes(33, 0x3B), false},
    {"TdChainThatAnnouncesTooMuch", {0x3B, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, false},
    {"T1AloneWithTck", {0x3B, 0x80, 0x01, 0x81}, true},
    {"HistoricalBytesAlone", {0x3B, 0x02, 0x14, 0x50}, true},
};

class AtrTest : public testing::TestWithParam<Case> {};

TEST_P(AtrTest, Bytes_PassOnlyIfTheyAddUpToAnAtr) {
  EXPECT_EQ(isPossibleAtr(GetParam().bytes), GetParam().possible) << hexText(GetParam().bytes);
}

INSTANTIATE_TEST_SUITE_P(Bytes, AtrTest, testing::ValuesIn(kCases),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST(OfferedProtocolsTest, AreThoseOfTheTdsOrT0) {
  EXPECT_EQ(offeredProtocols({0x3B, 0x00}), 1u);
  EXPECT_EQ(offeredProtocols({0x3B, 0x80, 0x00}), 1u);
  EXPECT_EQ(offeredProtocols({0x3B, 0x80, 0x01, 0x81}), 2u);
  EXPECT_EQ(offeredProtocols({0x3B, 0x80, 0x80, 0x01}), 3u);
  EXPECT_EQ(offeredProtocols({0x3B, 0x80, 0x81, 0x1F, 0x00, 0x00}), 0x8002u);
  EXPECT_EQ(offeredProtocols({0x3B, 0x80}), 0u) << "no ATR";
  EXPECT_EQ(offeredProtocols({}), 0u);
}

TEST(HexTextTest, BytesAreApartAndInCapitals) {
  EXPECT_EQ(hexText({}), "");
  EXPECT_EQ(hexText({0x3B, 0x0A, 0xFF}), "3B 0A FF");
}

}  // namespace
}  // namespace zelta::pcsc
