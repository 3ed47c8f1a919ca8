#include "contract/bytes.h"

namespace zelta {

std::string toHex(const std::uint8_t* bytes, std::size_t size) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(2 * size);
  for (std::size_t i = 0; i < size; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0xF];
  }
  return text;
}

int hexDigit(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

std::optional<Bytes> parseHex(const std::string& text) {
  Bytes bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == ' ' || text[i] == '\t') continue;
    if (i + 1 == text.size()) return std::nullopt;
    const int high = hexDigit(text[i]);
    const int low = hexDigit(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes.push_back(static_cast<std::uint8_t>(high << 4 | low));
    ++i;
  }
  return bytes;
}

}  // namespace zelta
