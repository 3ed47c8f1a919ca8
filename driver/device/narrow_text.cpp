#include "driver/device/narrow_text.h"

#include <cstdint>

#include "platform/files/utf.h"

namespace zelta {

namespace {

constexpr std::uint32_t kLastSingleUnit = 0xFFFF;
constexpr std::uint32_t kLastCharacter = 0x10FFFF;

// `character` is above `kLastSingleUnit`.
void appendPair(std::u16string& units, std::uint32_t character) {
  const std::uint32_t offset = character - (kLastSingleUnit + 1);
  units += static_cast<char16_t>(0xD800 + (offset >> 10));
  units += static_cast<char16_t>(0xDC00 + (offset & 0x3FF));
}

}  // namespace

std::string narrowText(std::wstring_view text) {
  std::u16string units;
  units.reserve(text.size());
  for (const wchar_t wide : text) {
    // A wide character is a UTF-16 unit on some systems and a whole character on others.
    // No char, whatever clang-tidy takes it for.
    // NOLINTNEXTLINE(bugprone-signed-char-misuse, cert-str34-c)
    const auto character = static_cast<std::uint32_t>(wide);
    if (character <= kLastSingleUnit) {
      units += static_cast<char16_t>(character);
    } else if (character <= kLastCharacter) {
      appendPair(units, character);
    } else {
      units += platform::kReplacementCharacter;
    }
  }
  return platform::utf8FromUtf16(units);
}

}  // namespace zelta
