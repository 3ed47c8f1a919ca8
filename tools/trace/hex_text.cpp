#include "tools/trace/hex_text.h"

#include "contract/bytes.h"

namespace zelta::trace {

std::optional<std::uint8_t> HexText::byte(std::size_t at) const {
  if (at >= size()) return std::nullopt;
  const int high = hexDigit(digits_[2 * at]);
  const int low = hexDigit(digits_[2 * at + 1]);
  if (high < 0 || low < 0) return std::nullopt;
  return static_cast<std::uint8_t>(high << 4 | low);
}

std::optional<std::uint16_t> HexText::word(std::size_t at) const {
  const std::optional<std::uint8_t> high = byte(at);
  const std::optional<std::uint8_t> low = byte(at + 1);
  if (!high || !low) return std::nullopt;
  return static_cast<std::uint16_t>(*high << 8 | *low);
}

HexText HexText::part(std::size_t from, std::size_t count) const {
  return from < size() ? HexText(digits_.substr(2 * from, 2 * count)) : HexText();
}

std::string HexText::shortened(std::size_t most) const {
  return size() <= most ? digits_ : digits_.substr(0, 2 * most) + "...";
}

}  // namespace zelta::trace
