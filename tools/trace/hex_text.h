// Bytes as a trace shows them: hexadecimal, two asterisks for one that is hidden.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace zelta::trace {

class HexText {
 public:
  HexText() = default;
  // An odd digit at the end does not count.
  explicit HexText(std::string digits) : digits_(std::move(digits)) {}

  std::size_t size() const { return digits_.size() / 2; }
  bool empty() const { return size() == 0; }
  const std::string& digits() const { return digits_; }
  // None for a byte that is hidden or missing.
  std::optional<std::uint8_t> byte(std::size_t at) const;
  // Both bytes as one number, the first the higher; none if either is none.
  std::optional<std::uint16_t> word(std::size_t at) const;
  // Up to `count` bytes, beginning at `from`.
  HexText part(std::size_t from, std::size_t count) const;
  // The digits; if there are more than `most` bytes, their first and "...".
  std::string shortened(std::size_t most) const;

 private:
  std::string digits_;
};

}  // namespace zelta::trace
