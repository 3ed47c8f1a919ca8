// Reads the rotation period's text.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace zelta::logging {

inline constexpr std::int64_t kMillisecondsPerMinute = 60'000;

// The minutes that a text asks for. It is read as the C library reads a double in the "C" locale,
// whatever the process's locale is: leading white space is skipped, text after the number is
// ignored, hexadecimal numbers and infinities count. The number is cut toward zero to 64 bits, and
// the low 32 bits of that are the minutes, with their sign. None if there is no number or it is out
// of a double's range.
//
//   "60" 60 | "1.9" 1 | " 30 min" 30 | "-5" -5 | "-0.5" 0 | "1e2" 100 | "0x10" 16
//   "4294967297" 1 | "2147483648" -2147483648 | "1e300", "inf" 0
//   "", "abc", "+-5", "1e999", "1e-999" none
std::optional<std::int32_t> rotationMinutes(std::string_view text);

}  // namespace zelta::logging
