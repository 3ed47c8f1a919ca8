#include "driver/reader_index.h"

#include <algorithm>
#include <cwctype>
#include <stdexcept>

namespace zelta {

namespace {

constexpr wchar_t kPrefix[] = L"dev";
constexpr std::size_t kPrefixLength = 3;

// The library's own texts differ between implementations; these go to the log.
int toInteger(const std::wstring& text) {
  try {
    return std::stoi(text);
  } catch (const std::invalid_argument&) {
    throw std::invalid_argument("invalid stoi argument");
  } catch (const std::out_of_range&) {
    throw std::out_of_range("stoi argument out of range");
  }
}

}  // namespace

std::wstring readerReferenceString(std::uint32_t index) { return kPrefix + std::to_wstring(index); }

std::uint32_t parseReaderIndex(std::wstring fileName) {
  std::transform(fileName.begin(), fileName.end(), fileName.begin(), [](wchar_t character) {
    return static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(character)));
  });
  const std::size_t prefix = fileName.find(kPrefix);
  if (prefix == std::wstring::npos) throw std::invalid_argument("Device name prefix not found");
  return static_cast<std::uint32_t>(toInteger(fileName.substr(prefix + kPrefixLength)));
}

}  // namespace zelta
