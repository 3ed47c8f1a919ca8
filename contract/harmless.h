// Escapes text from other programs before it is written to a terminal. A pure function.
#pragma once

#include <string>
#include <string_view>

namespace zelta {

// Writes as `\xNN` every byte of characters that a terminal would obey or reorder, and every byte
// that is not UTF-8. Tabs stay, line breaks do not.
std::string harmless(std::string_view text);

}  // namespace zelta
