// Neither ICU nor utfcpp: ICU has thirty megabytes, and utfcpp would replace one function of 15
// lines and throw on the very bytes that must be shown.
#include "contract/harmless.h"

#include <algorithm>
#include <array>
#include <utility>

namespace zelta {

namespace {

struct Character {
  char32_t code;
  std::size_t length;  // bytes; 0 if the text does not begin with a character in UTF-8
};

Character firstOf(std::string_view text) {
  static constexpr std::array<char32_t, 5> kLowest = {0, 0, 0x80, 0x800, 0x10000};
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return {lead, 1};
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC0 || lead > 0xF4 || text.size() < length) return {0, 0};
  char32_t code = lead & (0xFF >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0) != 0x80) return {0, 0};
    code = code << 6 | (byte & 0x3F);
  }
  return {code, code < kLowest[length] ? 0 : length};
}

// The control characters except the tab, and those that change the direction of writing.
bool isHarmful(char32_t code) {
  static constexpr std::array<std::pair<char32_t, char32_t>, 7> kRanges = {{{0x00, 0x08},
                                                                            {0x0A, 0x1F},
                                                                            {0x7F, 0x9F},
                                                                            {0x061C, 0x061C},
                                                                            {0x200E, 0x200F},
                                                                            {0x202A, 0x202E},
                                                                            {0x2066, 0x2069}}};
  return std::any_of(kRanges.begin(), kRanges.end(), [code](const auto& each) {
    return each.first <= code && code <= each.second;
  });
}

}  // namespace

std::string harmless(std::string_view text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string result;
  while (!text.empty()) {
    const Character first = firstOf(text);
    const std::size_t length = std::max<std::size_t>(first.length, 1);
    if (first.length != 0 && !isHarmful(first.code)) {
      result += text.substr(0, length);
    } else {
      for (const char each : text.substr(0, length)) {
        const auto byte = static_cast<unsigned char>(each);
        result += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0x0F]};
      }
    }
    text.remove_prefix(length);
  }
  return result;
}

}  // namespace zelta
