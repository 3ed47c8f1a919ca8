#include "logging/line_format.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <iterator>
#include <stdexcept>
#include <type_traits>

#include "logging/level.h"
#include "platform/process/thread_id.h"
#include "platform/sync/clock.h"

namespace zelta::logging {

namespace {

constexpr std::int64_t kClockUnitsPerSecond = 1000 * platform::kClockUnitsPerMillisecond;

// Column widths, shared by the header and the record lines.
constexpr std::size_t kThreadWidth = 8;
constexpr std::size_t kTimeWidth = 24;
constexpr std::size_t kElapsedWidth = 8;
constexpr std::size_t kSessionLogIdWidth = 36;
constexpr std::size_t kCategoryWidth = 5;
constexpr std::size_t kLevelWidth = 10;
constexpr std::size_t kResultCodeWidth = 11;
// In a record the thread stands in brackets, which take their share of the column.
constexpr std::size_t kBracketedThreadWidth = kThreadWidth - 2;

// Room for the columns before the message, a longer thread and a line end.
constexpr std::size_t kUsualPrefixWidth = 128;

struct SplitTime {
  explicit SplitTime(std::int64_t time)
      : second(time / kClockUnitsPerSecond),
        milliseconds(time % kClockUnitsPerSecond / platform::kClockUnitsPerMillisecond) {}

  // UTC
  std::tm calendar() const { return fmt::gmtime(static_cast<std::time_t>(second)); }

  std::int64_t second;  // since 1970
  std::int64_t milliseconds;
};

bool isControl(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 0x20 || byte == 0x7F;
}

// A record is one line, whatever texts it is made of: their control characters are written as
// `\xNN`. Everything else stays as it is.
void appendEscaped(std::string& line, std::string_view text) {
  while (!text.empty()) {
    const auto* const control = std::find_if(text.begin(), text.end(), isControl);
    line.append(text.begin(), control);
    text.remove_prefix(static_cast<std::size_t>(control - text.begin()));
    if (text.empty()) return;
    fmt::format_to(std::back_inserter(line), "\\x{:02x}", static_cast<unsigned char>(text.front()));
    text.remove_prefix(1);
  }
}

// Not by {fmt}, which takes ten times as long to pad a text as to copy it.
void appendPadded(std::string& line, std::string_view text, std::size_t width) {
  line.append(text);
  if (text.size() < width) line.append(width - text.size(), ' ');
}

// Pads the text appended since `begin` to a column, with the blank before the next one.
void fillColumn(std::string& line, std::size_t begin, std::size_t width) {
  line.resize(std::max(line.size(), begin + width), ' ');
  line.push_back(' ');
}

void appendColumn(std::string& line, std::string_view text, std::size_t width) {
  const std::size_t begin = line.size();
  line.append(text);
  fillColumn(line, begin, width);
}

template <typename Number>
void appendNumber(std::string& line, Number number, std::size_t width) {
  const fmt::format_int text(number);
  appendColumn(line, {text.data(), text.size()}, width);
}

// A text without a destructor. A thread-local text with one would keep a module from being
// unloaded, and a global one would be gone while the log's threads still write at exit.
template <std::size_t kCapacity>
struct FixedText {
  explicit FixedText(const std::string& text) : length(text.copy(characters, kCapacity)) {}
  std::string_view view() const { return std::string_view(characters, length); }

  char characters[kCapacity];
  std::size_t length;
};
using HeaderText = FixedText<128>;
using ThreadText = FixedText<10>;
static_assert(std::is_trivially_destructible_v<HeaderText>);

// A time stamp without its milliseconds.
struct SecondText {
  explicit SecondText(const SplitTime& time)
      : second(time.second), text(fmt::format("{:%Y-%m-%dT%H:%M:%S}", time.calendar())) {}

  std::int64_t second;
  FixedText<32> text;
};

// A thread's consecutive records mostly fall in the same second, so its text is cached.
void appendTimeStamp(std::string& line, std::int64_t time) {
  const SplitTime split(time);
  thread_local SecondText last(split);
  if (last.second != split.second) last = SecondText(split);
  line.append(last.text.view());
  line.push_back('.');
  const fmt::format_int digits(1000 + split.milliseconds);  // 1 and three digits
  line.append(digits.data() + 1, 3);
  line.push_back('Z');
}

std::string printHeader() {
  std::string line;
  appendColumn(line, "Thread", kThreadWidth);
  appendColumn(line, "Time", kTimeWidth);
  appendColumn(line, "Elapsed", kElapsedWidth);
  appendColumn(line, "Session Log Id", kSessionLogIdWidth);
  appendColumn(line, "Cat", kCategoryWidth);
  appendColumn(line, "Level", kLevelWidth);
  appendColumn(line, "RC", kResultCodeWidth);
  return line + "Message";
}

}  // namespace

std::string logFilePath(const std::string& basePath, std::int64_t time) {
  const SplitTime split(time);
  return fmt::format(
      "{}_{}.txt", basePath,
      fmt::format("{:%Y_%m_%dT%H_%M_%S}_{:03}Z", split.calendar(), split.milliseconds));
}

std::string_view headerLine() {
  static const HeaderText text(printHeader());
  return text.view();
}

std::string recordLine(const Record& record) {
  std::string line;
  line.reserve(kUsualPrefixWidth + record.message.size());
  line.push_back('[');
  appendPadded(line, record.thread, kBracketedThreadWidth);
  line.append("] ");
  appendTimeStamp(line, record.time);
  line.push_back(' ');
  appendNumber(line, record.elapsed, kElapsedWidth);
  const std::size_t sessionBegin = line.size();
  appendEscaped(line, record.sessionLogId);
  fillColumn(line, sessionBegin, kSessionLogIdWidth);
  appendNumber(line, record.category, kCategoryWidth);
  appendColumn(line, levelTag(record.level), kLevelWidth);
  appendNumber(line, record.resultCode, kResultCodeWidth);
  appendEscaped(line, record.message);
  return line;
}

std::string_view levelTag(std::int32_t level) {
  // Unsigned, so that a negative level is out of range as well.
  const auto index = static_cast<std::uint32_t>(level);
  if (index >= kLevelTags.size()) throw std::out_of_range("invalid map<K, T> key");
  return kLevelTags[index];
}

std::string_view currentThreadText() {
  thread_local const ThreadText text(std::to_string(platform::currentThreadId()));
  return text.view();
}

}  // namespace zelta::logging
