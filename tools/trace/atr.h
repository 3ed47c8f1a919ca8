// A card's answer to reset in words, by ISO/IEC 7816-3 and 7816-4. Pure; no I/O.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "contract/bytes.h"

namespace zelta::trace {

struct Atr {
  std::string problem;          // its fault; empty if it has none
  bool inverse = false;         // convention
  std::vector<int> protocols;   // T=, each once, in their order; T=0 if none is named
  std::optional<int> specific;  // the protocol of the specific mode (TA2)
  // From TA1; none of either if its value is reserved.
  std::optional<int> clockDivisor;  // Fi
  std::optional<int> rateFactor;    // Di
  int longestClock = 5000;          // fmax, in kHz
  int guardTime = 0;                // N of TC1: 255 is the shortest
  int waitingInteger = 10;          // WI of TC2, T=0
  int fieldSize = 32;               // IFSC, bytes, T=1
  int blockWaiting = 4;             // BWI, T=1
  int characterWaiting = 13;        // CWI, T=1
  bool usesCrc = false;             // T=1; otherwise LRC
  Bytes historical;
  std::optional<bool> checkGood;  // TCK; none if the ATR needs none
};

Atr parseAtr(const Bytes& bytes);

// Names and values, for people: protocols, clock, rates, times, historical bytes.
std::vector<std::pair<std::string, std::string>> describeAtr(const Bytes& bytes);

}  // namespace zelta::trace
