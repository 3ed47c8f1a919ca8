#include "agent/platform/pcsc_api.h"

#include <array>
#include <cstdio>

namespace zelta::agent {

ReaderName toReaderName(const std::string& name) {
  const auto size = static_cast<int>(name.size());
  ReaderName wide(name.size(), L'\0');  // one or more characters make one
  wide.resize(static_cast<std::size_t>(
      MultiByteToWideChar(CP_ACP, 0, name.data(), size, wide.data(), size)));
  return wide;
}

// By the system's own texts: std::system_category() knows none for this service's numbers.
std::string pcscText(LONG result) {
  constexpr DWORD kFlags =
      FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK;
  std::array<char, 256> text{};
  FormatMessageA(kFlags, nullptr, static_cast<DWORD>(result), 0, text.data(),
                 static_cast<DWORD>(text.size()), nullptr);
  std::array<char, 16> number{};
  (void)std::snprintf(number.data(), number.size(), "(0x%08lX)",
                      static_cast<unsigned long>(result));
  return std::string(text.data()) + number.data();  // the text ends with a blank
}

}  // namespace zelta::agent
