// Formats text for a terminal. Pure.
#pragma once

#include <string_view>
#include <vector>

namespace zelta::logs {

// The text in lines of at most `width` characters (not 0), broken at a blank if there is one. At
// least one line.
std::vector<std::string_view> wrapped(std::string_view text, std::size_t width);

}  // namespace zelta::logs
