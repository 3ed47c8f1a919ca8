// Byte strings and their hexadecimal text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zelta::agent {

using Bytes = std::vector<std::uint8_t>;

// Uppercase, two digits a byte, no separators.
std::string toHex(const Bytes& bytes);

// Takes either case and spaces between bytes, not within one. Nothing where the text is something
// else; empty text is an empty byte string.
std::optional<Bytes> parseHex(const std::string& text);

// The value of one hexadecimal digit, or -1.
int hexDigit(char digit);

}  // namespace zelta::agent
