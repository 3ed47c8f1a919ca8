#include "logging/rotation_time.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

namespace zelta::logging {

namespace {

constexpr double kTwoToThe63 = 9223372036854775808.0;

// A number without a sign at the text's beginning. `std::from_chars` knows no locale.
std::optional<double> readUnsigned(std::string_view text) {
  double number = 0;
  const char* const end = text.data() + text.size();
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') && text[2] != '-') {
    const auto result = std::from_chars(text.data() + 2, end, number, std::chars_format::hex);
    const bool isWord = !std::isfinite(number);  // "0xinf" is the number 0
    if (result.ec == std::errc::result_out_of_range) return std::nullopt;
    if (result.ec == std::errc() && !isWord) return number;
    return 0.0;
  }
  if (!text.empty() && text[0] == '-') return std::nullopt;
  const auto result = std::from_chars(text.data(), end, number);
  if (result.ec != std::errc()) return std::nullopt;
  return number;
}

// A number out of range gives the lowest one, as the processor's own conversion does.
std::int64_t cutTowardZero(double number) {
  const bool fits = number >= -kTwoToThe63 && number < kTwoToThe63;
  return fits ? static_cast<std::int64_t>(number) : std::numeric_limits<std::int64_t>::min();
}

}  // namespace

std::optional<std::int32_t> rotationMinutes(std::string_view text) {
  const std::size_t start = text.find_first_not_of(" \t\n\v\f\r");
  if (start == std::string_view::npos) return std::nullopt;
  text.remove_prefix(start);
  const bool isNegative = text.front() == '-';
  if (isNegative || text.front() == '+') text.remove_prefix(1);
  const std::optional<double> magnitude = readUnsigned(text);
  if (!magnitude.has_value()) return std::nullopt;
  const std::int64_t whole = cutTowardZero(isNegative ? -*magnitude : *magnitude);
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<std::uint64_t>(whole)));
}

}  // namespace zelta::logging
