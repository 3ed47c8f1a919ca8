#include "tools/logs/terminal_text.h"

namespace zelta::logs {

namespace {

// The bytes of the text's first `count` characters.
std::size_t lengthOf(std::string_view text, std::size_t count) {
  std::size_t length = 0;
  for (; length < text.size(); ++length) {
    const bool isFirst = (static_cast<unsigned char>(text[length]) & 0xC0) != 0x80;
    if (isFirst && count-- == 0) break;
  }
  return length;
}

}  // namespace

std::vector<std::string_view> wrapped(std::string_view text, std::size_t width) {
  std::vector<std::string_view> lines;
  for (;;) {
    const std::size_t fitting = lengthOf(text, width);
    if (fitting == text.size()) break;
    const std::size_t blank = text.rfind(' ', fitting);
    const bool hasBlank = blank != text.npos && blank > 0;
    lines.push_back(text.substr(0, hasBlank ? blank : fitting));
    text.remove_prefix(hasBlank ? blank + 1 : fitting);
  }
  lines.push_back(text);
  return lines;
}

}  // namespace zelta::logs
