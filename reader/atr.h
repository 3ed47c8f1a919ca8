// The values that a reader takes from a card's answer to reset (ISO/IEC 7816-3). Pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace zelta {

// The transmission values of TA(1).
struct AtrRates {
  std::uint32_t fi = 0;               // clock rate conversion integer
  std::uint32_t di = 0;               // baud rate adjustment integer
  std::uint32_t maxClock = 0;         // kHz
  std::uint32_t defaultDataRate = 0;  // bit/s at the default clock of 4 MHz, rounded down
  std::uint32_t maxDataRate = 0;      // bit/s at the maximal clock, rounded down
};

struct AtrValues {
  // Bit T is set for each protocol T that a TD byte names; T=0 alone if none does. Never 0.
  std::uint32_t availableProtocols = 0;
  // T of the last TD byte; none without a TD byte.
  std::optional<std::uint32_t> lastProtocol;
  // TA(1); none if it is absent.
  std::optional<AtrRates> rates;
  // TA(3), the card's information field size in bytes; none if it is absent.
  std::optional<std::uint32_t> ifsc;
};

inline constexpr std::size_t kMinAtrSize = 2;  // bytes: TS and T0

// Whether the first byte is one of the two conventions' initial characters. Needs one byte.
bool hasValidInitialByte(const std::vector<std::uint8_t>& atr);

// Walks the interface bytes up to the last one announced or the last one present, whichever comes
// first; historical bytes and the check byte are not read. Needs `kMinAtrSize` bytes and a valid
// initial byte.
AtrValues parseAtr(const std::vector<std::uint8_t>& atr);

// The values that a TA(1) byte stands for. Values reserved for future use count as the defaults:
// Fi 372 with 5000 kHz, and Di 1.
AtrRates ratesOfTa1(std::uint8_t ta1);

}  // namespace zelta
