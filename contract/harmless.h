// Texts of others, such as an agent's, that are about to reach a terminal. A pure function.
#pragma once

#include <string>
#include <string_view>

namespace zelta {

// What a terminal would obey or show in another order, and what is not UTF-8, is `\xNN` byte by
// byte. Tabulators stay, line breaks do not.
std::string harmless(std::string_view text);

}  // namespace zelta
