// Wide text for the log, whose lines are narrow: UTF-8, whatever the process's locale.
#pragma once

#include <string>
#include <string_view>

namespace zelta {

// The C library's own conversion gives up on a character that the locale lacks. Whatever is not
// well-formed becomes U+FFFD.
std::string narrowText(std::wstring_view text);

}  // namespace zelta
