#include "tools/logs/printer.h"

#include <algorithm>
#include <utility>

namespace zelta::logs {

namespace {

const char* colorOf(Level level) {
  switch (level) {
    case Level::kCritical:
      return "\x1b[1;31m";
    case Level::kError:
      return "\x1b[31m";
    case Level::kInfo:
      return "";
    case Level::kDebug:
    case Level::kTrace:
      return "\x1b[2m";
  }
  return "";
}

constexpr char kHeaderColor[] = "\x1b[1m";
constexpr char kPlain[] = "\x1b[0m";

// Control characters of a message, which may hold an agent's text, must not reach a terminal.
std::string harmless(std::string_view text) {
  std::string result(text);
  std::replace_if(
      result.begin(), result.end(),
      [](char c) { return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f; }, '?');
  return result;
}

}  // namespace

bool matches(const Filter& filter, const Record& record) {
  if (record.level > filter.level) return false;
  if (record.time < filter.since) return false;
  if (record.session.substr(0, filter.session.size()) != filter.session) return false;
  return filter.tags.empty() ||
         std::any_of(filter.tags.begin(), filter.tags.end(),
                     [&](const std::string& tag) { return hasTag(record.message, tag); });
}

Printer::Printer(Filter filter, bool color, Output output)
    : filter_(std::move(filter)), color_(color), output_(std::move(output)) {}

void Printer::print(std::string_view line) {
  const char* color = "";
  if (const auto record = parseRecord(line)) {
    lastShown_ = matches(filter_, *record);
    color = colorOf(record->level);
  } else if (isHeader(line)) {
    lastShown_ = !std::exchange(headerShown_, true);
    color = kHeaderColor;
  }
  if (!lastShown_) return;
  if (!color_) {
    output_(line);
  } else if (*color == '\0') {
    output_(harmless(line));
  } else {
    output_(color + harmless(line) + kPlain);
  }
}

}  // namespace zelta::logs
