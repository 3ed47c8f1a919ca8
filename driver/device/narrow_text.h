// Wide text for the log, whose lines are narrow: UTF-8, whatever the process's locale.
#pragma once

#include <string>
#include <string_view>

namespace zelta {

// The C library's own conversion of wide text gives up where the locale lacks a character. What is
// not well-formed becomes U+FFFD.
std::string narrowText(std::wstring_view text);

}  // namespace zelta
