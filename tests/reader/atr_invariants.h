// Invariants of every answer to reset, however broken.
#pragma once

#include <cstdint>
#include <vector>

#include "reader/atr.h"

namespace zelta::test {

// The first rule that the values read from the bytes break; null if none. Like a reader, reads
// nothing if there are too few bytes or their beginning is wrong.
inline const char* brokenAtrRule(const std::vector<std::uint8_t>& atr) {
  if (atr.size() < kMinAtrSize || !hasValidInitialByte(atr)) return nullptr;
  const AtrValues values = parseAtr(atr);
  if (values.availableProtocols == 0) return "some protocol is always available";
  if (values.availableProtocols > 0xFFFF) return "there are sixteen protocols";
  if (values.lastProtocol.has_value()) {
    if (*values.lastProtocol > 0xF) return "a protocol's number has four bits";
    if ((values.availableProtocols >> *values.lastProtocol & 1) == 0) {
      return "the last protocol is available";
    }
  } else if (values.availableProtocols != 1) {
    return "without a protocol byte T=0 alone is available";
  }
  if (values.ifsc.has_value() && *values.ifsc > 0xFF) return "a field size is one byte";
  if (values.rates.has_value()) {
    const AtrRates& rates = *values.rates;
    if (rates.fi < 372 || rates.fi > 2048) return "Fi is of the table";
    if (rates.di < 1 || rates.di > 64) return "Di is of the table";
    if (rates.maxClock < 4000 || rates.maxClock > 20000) return "the clock is of the table";
    if (rates.defaultDataRate > rates.maxDataRate) return "no clock is below the default one";
  }
  return nullptr;
}

}  // namespace zelta::test
