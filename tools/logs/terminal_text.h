// Texts for a terminal. Pure functions.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zelta::logs {

// A log holds an agent's texts. What a terminal would obey or show in another order, and what is
// not UTF-8, is `\xNN` byte by byte.
std::string harmless(std::string_view text);

// The text in lines of at most `width` characters (not 0), broken at a blank if there is one. At
// least one line.
std::vector<std::string_view> wrapped(std::string_view text, std::size_t width);

}  // namespace zelta::logs
