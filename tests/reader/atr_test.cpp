#include "reader/atr.h"

#include <gtest/gtest.h>

#include "contract/bytes.h"
#include "tests/reader/atr_invariants.h"

namespace zelta {
namespace {

TEST(AtrInitialByte, OnlyTheTwoConventionsAreValid) {
  for (unsigned ts = 0; ts <= 0xFF; ++ts) {
    EXPECT_EQ(hasValidInitialByte({static_cast<std::uint8_t>(ts), 0x00}), ts == 0x3B || ts == 0x3F)
        << ts;
  }
}

struct RatesRow {
  std::uint8_t ta1;
  std::uint32_t fi, di, maxClock, defaultRate, maxRate;
};

class Ta1 : public testing::TestWithParam<RatesRow> {};

TEST_P(Ta1, GivesTheTableValuesAndTruncatedRates) {
  const RatesRow& row = GetParam();
  const AtrRates rates = ratesOfTa1(row.ta1);
  EXPECT_EQ(rates.fi, row.fi);
  EXPECT_EQ(rates.di, row.di);
  EXPECT_EQ(rates.maxClock, row.maxClock);
  EXPECT_EQ(rates.defaultDataRate, row.defaultRate);
  EXPECT_EQ(rates.maxDataRate, row.maxRate);
}

// The high nibbles 7, 8, 14 and 15 are reserved, and so are the low nibbles 0 and 10 to 15.
INSTANTIATE_TEST_SUITE_P(
    ClockRates, Ta1,
    testing::Values(
        RatesRow{0x01, 372, 1, 4000, 10752, 10752}, RatesRow{0x11, 372, 1, 5000, 10752, 13440},
        RatesRow{0x21, 558, 1, 6000, 7168, 10752}, RatesRow{0x31, 744, 1, 8000, 5376, 10752},
        RatesRow{0x41, 1116, 1, 12000, 3584, 10752}, RatesRow{0x51, 1488, 1, 16000, 2688, 10752},
        RatesRow{0x61, 1860, 1, 20000, 2150, 10752}, RatesRow{0x71, 372, 1, 5000, 10752, 13440},
        RatesRow{0x81, 372, 1, 5000, 10752, 13440}, RatesRow{0x91, 512, 1, 5000, 7812, 9765},
        RatesRow{0xA1, 768, 1, 7500, 5208, 9765}, RatesRow{0xB1, 1024, 1, 10000, 3906, 9765},
        RatesRow{0xC1, 1536, 1, 15000, 2604, 9765}, RatesRow{0xD1, 2048, 1, 20000, 1953, 9765},
        RatesRow{0xE1, 372, 1, 5000, 10752, 13440}, RatesRow{0xF1, 372, 1, 5000, 10752, 13440}),
    [](const auto& each) { return toHex({each.param.ta1}); });

INSTANTIATE_TEST_SUITE_P(BaudRates, Ta1,
                         testing::Values(RatesRow{0x10, 372, 1, 5000, 10752, 13440},
                                         RatesRow{0x12, 372, 2, 5000, 21505, 26881},
                                         RatesRow{0x13, 372, 4, 5000, 43010, 53763},
                                         RatesRow{0x14, 372, 8, 5000, 86021, 107526},
                                         RatesRow{0x15, 372, 16, 5000, 172043, 215053},
                                         RatesRow{0x16, 372, 32, 5000, 344086, 430107},
                                         RatesRow{0x17, 372, 64, 5000, 688172, 860215},
                                         RatesRow{0x18, 372, 12, 5000, 129032, 161290},
                                         RatesRow{0x19, 372, 20, 5000, 215053, 268817},
                                         RatesRow{0x1A, 372, 1, 5000, 10752, 13440},
                                         RatesRow{0x1B, 372, 1, 5000, 10752, 13440},
                                         RatesRow{0x1C, 372, 1, 5000, 10752, 13440},
                                         RatesRow{0x1D, 372, 1, 5000, 10752, 13440},
                                         RatesRow{0x1E, 372, 1, 5000, 10752, 13440},
                                         RatesRow{0x1F, 372, 1, 5000, 10752, 13440},
                                         RatesRow{0x67, 1860, 64, 20000, 137634, 688172}),
                         [](const auto& each) { return toHex({each.param.ta1}); });

using Maybe = std::optional<std::uint32_t>;
constexpr std::nullopt_t kNone = std::nullopt;

struct AtrRow {
  const char* name;
  Bytes atr;
  std::uint32_t protocols;
  Maybe lastProtocol, maxDataRate, ifsc;
};

class Atr : public testing::TestWithParam<AtrRow> {};

TEST_P(Atr, Bytes_GiveProtocolsRateAndFieldSize) {
  const AtrRow& row = GetParam();
  const AtrValues values = parseAtr(row.atr);
  EXPECT_EQ(values.availableProtocols, row.protocols);
  EXPECT_EQ(values.lastProtocol, row.lastProtocol);
  EXPECT_EQ(values.rates.has_value() ? Maybe(values.rates->maxDataRate) : kNone, row.maxDataRate);
  EXPECT_EQ(values.ifsc, row.ifsc);
}

Bytes endlessTdChain() {
  Bytes atr(4096, 0x81);
  atr[0] = 0x3B;
  return atr;
}

INSTANTIATE_TEST_SUITE_P(
    All, Atr,
    testing::Values(
        AtrRow{"WithoutInterfaceBytes_OffersT0Alone", {0x3B, 0x00}, 1, kNone, kNone, kNone},
        AtrRow{"WithTa1AndTwoT1Bytes_GivesRatesAndT1",
               {0x3B, 0x95, 0x13, 0x81, 0x01},
               2,
               1,
               53763,
               kNone},
        // TB(1) and TC(1) hold what would be TD values.
        AtrRow{"WithTbAndTc_SkipsThem", {0x3B, 0xF0, 0x11, 0x8F, 0x8F, 0x01}, 2, 1, 13440, kNone},
        AtrRow{"WithTa2_HasNoRateAndNoFieldSize", {0x3B, 0x80, 0x10, 0x95}, 1, 0, kNone, kNone},
        AtrRow{"WithTa3_HasAFieldSize", {0x3B, 0x80, 0x80, 0x11, 0xFE}, 3, 1, kNone, 0xFE},
        AtrRow{"WithTa4_HasNoFieldSize", {0x3B, 0x80, 0x80, 0x80, 0x11, 0xFE}, 3, 1, kNone, kNone},
        AtrRow{"WithSeveralTd_OffersAllAndTakesTheLast",
               {0x3B, 0x80, 0x81, 0x8F, 0x00},
               0x8003,
               0,
               kNone,
               kNone},
        AtrRow{
            "AnnouncingMoreThanItHas_EndsWithItsBytes", {0x3B, 0xF0, 0x13}, 1, kNone, 53763, kNone},
        AtrRow{"WithAnEndlessTdChain_EndsWithItsBytes", endlessTdChain(), 2, 1, kNone, kNone},
        AtrRow{"WithHistoricalBytes_DoesNotReadThem",
               {0x3B, 0x03, 0x81, 0x81, 0x81},
               1,
               kNone,
               kNone,
               kNone}),
    [](const auto& instance) { return instance.param.name; });

TEST(AtrRules, TwoInterfaceBytesOfAnyValue_BreakNone) {
  for (unsigned t0 = 0; t0 <= 0xFF; ++t0) {
    for (unsigned first = 0; first <= 0xFF; ++first) {
      const Bytes atr{0x3B, static_cast<std::uint8_t>(t0), static_cast<std::uint8_t>(first),
                      static_cast<std::uint8_t>(~first)};
      ASSERT_EQ(test::brokenAtrRule(atr), nullptr) << t0 << " " << first;
    }
  }
}

}  // namespace
}  // namespace zelta
