// Texts of others, such as an agent's, that are about to reach a terminal. A pure function.
#pragma once

#include <string>
#include <string_view>

namespace zelta {

// Writes as `\xNN`, byte by byte, what a terminal would obey or show in another order, and what is
// not UTF-8. Tabs stay, line breaks do not.
std::string harmless(std::string_view text);

}  // namespace zelta
