#include "tools/setup/windows_error.h"

#include <setupapi.h>
// setupapi.h comes first
#include <array>
#include <iomanip>
#include <sstream>

#include "platform/files/utf.h"

namespace zelta::setup {

namespace {

struct Hint {
  DWORD number;
  const char* text;
};

constexpr DWORD kFileHashNotInCatalog = 0xE000024B;  // mingw-w64's headers have no name for it

constexpr char kNoCatalog[] = "the package has no catalog, or the catalog is not signed";
constexpr char kNotTrusted[] = "the catalog's certificate is not trusted on this machine";

// Hints that Windows' own text lacks. docs/windows.md says how to sign.
constexpr Hint kHints[] = {
    {ERROR_NO_CATALOG_FOR_OEM_INF, kNoCatalog},
    {static_cast<DWORD>(TRUST_E_NOSIGNATURE), kNoCatalog},
    {ERROR_AUTHENTICODE_TRUST_NOT_ESTABLISHED, kNotTrusted},
    {ERROR_AUTHENTICODE_PUBLISHER_NOT_TRUSTED, kNotTrusted},
    {static_cast<DWORD>(CERT_E_UNTRUSTEDROOT), kNotTrusted},
    {kFileHashNotInCatalog, "the catalog was made of other files; make it anew"},
};

std::string textOf(DWORD number) {
  for (const Hint& hint : kHints) {
    if (hint.number == number) return hint.text;
  }
  std::array<wchar_t, 512> buffer{};
  const DWORD length = FormatMessageW(
      FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
      nullptr, number, 0, buffer.data(), static_cast<DWORD>(buffer.size()), nullptr);
  std::string text = utf8(std::wstring(buffer.data(), length));
  while (!text.empty() && (text.back() == ' ' || text.back() == '.')) text.pop_back();
  return text;
}

// Small numbers as they are looked up, the others as the system's lists have them.
std::string shown(DWORD number) {
  if (number < 0x10000) return std::to_string(number);
  std::ostringstream text;
  text << "0x" << std::hex << std::uppercase << std::setw(8) << std::setfill('0') << number;
  return text.str();
}

}  // namespace

std::string utf8(const std::wstring& text) {
  return platform::utf8FromUtf16(std::u16string(text.begin(), text.end()));
}

std::wstring wide(const std::string& text) {
  const std::u16string units = platform::utf16FromUtf8(text);
  return {units.begin(), units.end()};
}

WindowsError::WindowsError(const std::string& what, DWORD number)
    : std::runtime_error(what + ": " + textOf(number) + " (" + shown(number) + ")"),
      number_(number) {}

void require(BOOL succeeded, const std::string& what) {
  if (!succeeded) throw WindowsError(what, GetLastError());
}

}  // namespace zelta::setup
