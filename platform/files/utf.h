// UTF-8 to UTF-16 and back.
//
// Pure; any thread. Both take any input: malformed text becomes U+FFFD, one for each maximal part
// of a UTF-8 sequence that cannot be continued, one for each lone surrogate. Byte order marks are
// passed through as the character they are.
#pragma once

#include <string>
#include <string_view>

namespace zelta::platform {

inline constexpr char16_t kReplacementCharacter = 0xFFFD;

std::u16string utf16FromUtf8(std::string_view text);
std::string utf8FromUtf16(std::u16string_view text);

}  // namespace zelta::platform
