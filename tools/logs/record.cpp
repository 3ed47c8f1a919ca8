#include "tools/logs/record.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <ctime>

namespace zelta::logs {

namespace {

constexpr std::size_t kTimeLength = 24;

char upper(char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); }

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (upper(a[i]) != upper(b[i])) return false;
  }
  return true;
}

std::string_view trimRight(std::string_view text) {
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

// Takes the next word and the blanks after it off the text.
std::string_view takeWord(std::string_view& text) {
  const std::size_t end = std::min(text.find(' '), text.size());
  const std::string_view word = text.substr(0, end);
  text.remove_prefix(end);
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  return word;
}

bool looksLikeTime(std::string_view text) {
  static constexpr std::string_view kShape = "dddd-dd-ddTdd:dd:dd.dddZ";
  if (text.size() > kShape.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
    if (kShape[i] == 'd' ? !digit : text[i] != kShape[i]) return false;
  }
  return true;
}

std::optional<std::int64_t> parseNumber(std::string_view text) {
  std::int64_t value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool isWhole = result.ec == std::errc() && result.ptr == text.data() + text.size();
  return isWhole ? std::optional(value) : std::nullopt;
}

// The length of a unit of time in seconds; 0 for none.
std::int64_t unitSeconds(char unit) {
  switch (unit) {
    case 's':
      return 1;
    case 'm':
      return 60;
    case 'h':
      return 60 * 60;
    case 'd':
      return 24 * 60 * 60;
    default:
      return 0;
  }
}

std::string timeText(std::int64_t seconds) {
  const std::time_t time = static_cast<std::time_t>(seconds);
  std::tm calendar{};
  if (gmtime_r(&time, &calendar) == nullptr) return {};
  std::array<char, 32> text{};
  const std::size_t length =
      std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &calendar);
  return std::string(text.data(), length);
}

// The session's id and category before the level's tag, which begins at `open`, and the columns
// after it.
bool parseFromLevel(std::string_view text, std::size_t open, Record& record) {
  const std::size_t close = text.find("> ", open);
  if (close == text.npos) return false;
  const auto level = parseLevel(text.substr(open + 1, close - open - 1));
  if (!level) return false;
  record.level = *level;
  const std::string_view front = trimRight(text.substr(0, open));
  const std::size_t categoryAt = front.rfind(' ');
  if (categoryAt == front.npos || !parseNumber(front.substr(categoryAt + 1))) return false;
  record.session = trimRight(front.substr(0, categoryAt));

  text = text.substr(close + 1);
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  const std::size_t codeEnd = std::min(text.find(' '), text.size());
  const auto code = parseNumber(text.substr(0, codeEnd));
  if (!code) return false;
  record.code = *code;
  constexpr std::size_t kCodeWidth = 11;
  record.message = text.substr(std::min(text.size(), std::max(codeEnd, kCodeWidth) + 1));
  return true;
}

}  // namespace

bool isHeader(std::string_view line) {
  return line.substr(0, 7) == "Thread " && line.find(" Session Log Id ") != line.npos;
}

std::optional<Record> parseRecord(std::string_view line) {
  if (line.empty() || line.front() != '[') return std::nullopt;
  const std::size_t bracket = line.find(']');
  if (bracket == line.npos || line.substr(bracket, 2) != "] ") return std::nullopt;
  Record record;
  record.thread = trimRight(line.substr(1, bracket - 1));
  std::string_view rest = line.substr(bracket + 2);
  record.time = takeWord(rest);
  if (record.time.size() != kTimeLength || !looksLikeTime(record.time)) return std::nullopt;
  if (!parseNumber(takeWord(rest))) return std::nullopt;  // elapsed

  // The session id is the agent's text, which may look like the columns after it. The last match is
  // the columns.
  for (std::size_t at = rest.rfind('<'); at != rest.npos; at = rest.substr(0, at).rfind('<')) {
    if (!parseFromLevel(rest, at, record)) continue;
    record.columns = line.substr(0, line.size() - record.message.size());
    return record;
  }
  return std::nullopt;
}

std::string_view levelName(Level level) {
  const std::string_view tag = logging::kLevelTags[static_cast<std::size_t>(level)];
  return tag.substr(1, tag.size() - 2);
}

std::optional<Level> parseLevel(std::string_view text) {
  for (std::size_t i = 0; i < logging::kLevelTags.size(); ++i) {
    const auto level = static_cast<Level>(i);
    const char digit = static_cast<char>('0' + i);
    if (equalIgnoringCase(text, levelName(level)) || text == std::string_view(&digit, 1)) {
      return level;
    }
  }
  return std::nullopt;
}

bool hasTag(std::string_view message, std::string_view tag) {
  if (tag.size() >= 2 && tag.front() == '[' && tag.back() == ']') {
    tag = tag.substr(1, tag.size() - 2);
  }
  for (auto each = firstTag(message); !each.empty(); each = firstTag(message)) {
    if (equalIgnoringCase(each, tag)) return true;
    message.remove_prefix(each.size() + 2);
  }
  return false;
}

std::string_view firstTag(std::string_view message) {
  const std::size_t end = message.find(']');
  if (end == message.npos || message.front() != '[') return {};
  return message.substr(1, end - 1);
}

bool isRoutine(const Record& record) {
  constexpr std::int64_t kNotSupported = 50;  // ERROR_NOT_SUPPORTED
  return record.level == Level::kError && record.code == kNotSupported &&
         (hasTag(record.message, "GATT") || hasTag(record.message, "SATT"));
}

std::optional<std::uint32_t> parseCount(std::string_view text) {
  constexpr std::size_t kMaxDigits = 9;  // whatever the unit, nothing overflows
  std::uint32_t count = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), count);
  const bool isWhole = result.ec == std::errc() && result.ptr == text.data() + text.size();
  if (text.empty() || text.size() > kMaxDigits || !isWhole) return std::nullopt;
  return count;
}

std::optional<std::int64_t> parseSpan(std::string_view text) {
  if (text.empty()) return std::nullopt;
  const std::int64_t unit = unitSeconds(text.back());
  const auto count = parseCount(text.substr(0, text.size() - 1));
  if (unit == 0 || !count) return std::nullopt;
  return static_cast<std::int64_t>(*count) * unit;
}

std::optional<std::uint64_t> parseSize(std::string_view text) {
  static constexpr std::string_view kUnits = "KMG";
  int shift = 0;
  if (const std::size_t unit = text.empty() ? kUnits.npos : kUnits.find(text.back());
      unit != kUnits.npos) {
    shift = 10 * (static_cast<int>(unit) + 1);
    text.remove_suffix(1);
  }
  const auto count = parseCount(text);
  if (!count) return std::nullopt;
  return std::uint64_t{*count} << shift;
}

std::optional<std::string> parseSince(std::string_view text, std::int64_t now) {
  if (const auto span = parseSpan(text)) return timeText(now - *span);
  if (text.empty()) return std::nullopt;
  constexpr std::size_t kDateLength = 10;
  if (text.back() == 'Z') text.remove_suffix(1);
  if (text.size() < kDateLength || !looksLikeTime(text)) return std::nullopt;
  return std::string(text);
}

}  // namespace zelta::logs
