#include "driver/device/reader_index.h"

#include <algorithm>
#include <cwctype>
#include <limits>
#include <stdexcept>

namespace zelta {

namespace {

constexpr std::wstring_view kPrefix = L"dev";

bool isLowerCaseOf(wchar_t character, wchar_t lowerCase) {
  return static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(character))) == lowerCase;
}

bool isSpace(wchar_t character) { return std::iswspace(static_cast<std::wint_t>(character)) != 0; }

bool isDigit(wchar_t character) { return character >= L'0' && character <= L'9'; }

// As std::stoi reads it, from a text that need not have a terminator; its messages go to the log.
std::int32_t toInteger(std::wstring_view text) {
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  const bool negative = !text.empty() && text.front() == L'-';
  if (negative || (!text.empty() && text.front() == L'+')) text.remove_prefix(1);
  if (text.empty() || !isDigit(text.front())) throw std::invalid_argument("invalid stoi argument");
  const std::int64_t limit =
      std::int64_t{std::numeric_limits<std::int32_t>::max()} + (negative ? 1 : 0);
  std::int64_t value = 0;
  for (; !text.empty() && isDigit(text.front()); text.remove_prefix(1)) {
    value = value * 10 + (text.front() - L'0');
    if (value > limit) throw std::out_of_range("stoi argument out of range");
  }
  return static_cast<std::int32_t>(negative ? -value : value);
}

}  // namespace

std::wstring readerReferenceString(std::uint32_t index) {
  return std::wstring(kPrefix) + std::to_wstring(index);
}

std::uint32_t parseReaderIndex(std::wstring_view fileName) {
  const auto* const prefix =
      std::search(fileName.begin(), fileName.end(), kPrefix.begin(), kPrefix.end(), isLowerCaseOf);
  if (prefix == fileName.end()) throw std::invalid_argument("Device name prefix not found");
  const auto start = static_cast<std::size_t>(prefix - fileName.begin()) + kPrefix.size();
  return static_cast<std::uint32_t>(toInteger(fileName.substr(start)));
}

}  // namespace zelta
