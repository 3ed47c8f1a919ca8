#include "reader/atr.h"

#include <array>

namespace zelta {

namespace {

constexpr std::uint8_t kDirectConvention = 0x3B;
constexpr std::uint8_t kInverseConvention = 0x3F;

constexpr std::uint32_t kDefaultFi = 372;
constexpr std::uint32_t kDefaultMaxClock = 5000;      // kHz
constexpr std::uint32_t kDefaultFrequency = 4000000;  // Hz

struct ClockRate {
  std::uint32_t fi;
  std::uint32_t maxClock;  // kHz
};

// By the high nibble of TA(1); reserved ones have the defaults.
constexpr ClockRate kReservedClockRate{kDefaultFi, kDefaultMaxClock};
constexpr std::array<ClockRate, 16> kClockRates{{
    {372, 4000},
    {372, 5000},
    {558, 6000},
    {744, 8000},
    {1116, 12000},
    {1488, 16000},
    {1860, 20000},
    kReservedClockRate,
    kReservedClockRate,
    {512, 5000},
    {768, 7500},
    {1024, 10000},
    {1536, 15000},
    {2048, 20000},
    kReservedClockRate,
    kReservedClockRate,
}};

// By the low nibble of TA(1); reserved ones are 1.
constexpr std::array<std::uint32_t, 16> kBaudRateIntegers{1,  1,  2, 4, 8, 16, 32, 64,
                                                          12, 20, 1, 1, 1, 1,  1,  1};

constexpr std::uint8_t highNibble(std::uint8_t byte) { return byte >> 4; }
constexpr std::uint8_t lowNibble(std::uint8_t byte) { return byte & 0x0F; }

// The interface bytes of a group in the order of their indicator bits.
constexpr unsigned kTa = 0x1;
constexpr unsigned kTd = 0x8;

unsigned lowestBit(unsigned bits) { return bits & (~bits + 1); }

void readTa(std::uint8_t byte, unsigned group, AtrValues& values) {
  if (group == 1) values.rates = ratesOfTa1(byte);
  if (group == 3) values.ifsc = byte;
}

void readTd(std::uint8_t byte, AtrValues& values) {
  values.lastProtocol = lowNibble(byte);
  values.availableProtocols |= 1u << lowNibble(byte);
}

}  // namespace

bool hasValidInitialByte(const std::vector<std::uint8_t>& atr) {
  return atr[0] == kDirectConvention || atr[0] == kInverseConvention;
}

AtrRates ratesOfTa1(std::uint8_t ta1) {
  const ClockRate& clockRate = kClockRates[highNibble(ta1)];
  AtrRates rates;
  rates.fi = clockRate.fi;
  rates.di = kBaudRateIntegers[lowNibble(ta1)];
  rates.maxClock = clockRate.maxClock;
  rates.defaultDataRate = rates.di * kDefaultFrequency / rates.fi;
  rates.maxDataRate = rates.di * rates.maxClock * 1000 / rates.fi;
  return rates;
}

AtrValues parseAtr(const std::vector<std::uint8_t>& atr) {
  AtrValues values;
  unsigned indicators = highNibble(atr[1]);
  unsigned group = 1;
  for (std::size_t index = 2; indicators != 0 && index < atr.size(); ++index) {
    const unsigned present = lowestBit(indicators);
    indicators &= ~present;
    const std::uint8_t byte = atr[index];
    if (present == kTa) {
      readTa(byte, group, values);
    } else if (present == kTd) {
      readTd(byte, values);
      ++group;
      indicators = highNibble(byte);
    }  // TB and TC: nothing of interest
  }
  if (values.availableProtocols == 0) values.availableProtocols = 1;
  return values;
}

}  // namespace zelta
