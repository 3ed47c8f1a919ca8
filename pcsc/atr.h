// Checks whether bytes can be a card's answer to reset.
//
// Pure functions.
#pragma once

#include <cstdint>
#include <string>

#include "contract/bytes.h"

namespace zelta::pcsc {

// TS is 3B or 3F; the number of bytes is what T0 and the TDs announce, the historical bytes of T0
// included, or one more for TCK. TCK may be missing or wrong: real cards leave it out.
//
// | bytes                         | possible | because                                   |
// |-------------------------------|----------|-------------------------------------------|
// | 3B 00                         | yes      | nothing announced                         |
// | 3B 00 00                      | yes      | TCK                                       |
// | 3B 95 13 81 01 and 5 more     | yes      | TA1, TD1, TD2, 5 historical bytes         |
// | the same with 6 more          | yes      | TCK                                       |
// | 3B 95 13 81 01                | no       | the historical bytes are missing          |
// | 3B 80                         | no       | TD1 is missing                            |
// | 3B 00 00 00                   | no       | one byte too many                         |
// | 3C 00, 3B, nothing            | no       | TS; no T0                                 |
bool isPossibleAtr(const Bytes& bytes);

// The protocols that a possible ATR offers, bit T for T=0 and T=1 and so on; T=0 if it names none.
// 0 for anything else.
std::uint32_t offeredProtocols(const Bytes& bytes);

// "3B 95 13".
std::string hexText(const Bytes& bytes);

}  // namespace zelta::pcsc
