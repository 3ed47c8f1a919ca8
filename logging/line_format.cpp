#include "logging/line_format.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <array>
#include <ctime>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include "platform/clock.h"

namespace zelta::logging {

namespace {

constexpr std::int64_t kClockUnitsPerSecond = 1000 * platform::kClockUnitsPerMillisecond;

// Column widths, shared by the header and the record lines.
constexpr int kThreadWidth = 8;
constexpr int kTimeWidth = 24;
constexpr int kElapsedWidth = 8;
constexpr int kSessionLogIdWidth = 36;
constexpr int kCategoryWidth = 5;
constexpr int kLevelWidth = 10;
constexpr int kResultCodeWidth = 11;
// In a record the thread stands in brackets, which take their share of the column.
constexpr int kBracketedThreadWidth = kThreadWidth - 2;

constexpr std::array<const char*, 5> kLevelTags = {"<CRITICAL>", "<ERROR>", "<INFO>", "<DEBUG>",
                                                   "<TRACE>"};

struct SplitTime {
  explicit SplitTime(std::int64_t time)
      : calendar(fmt::gmtime(static_cast<std::time_t>(time / kClockUnitsPerSecond))),
        milliseconds(time % kClockUnitsPerSecond / platform::kClockUnitsPerMillisecond) {}

  std::tm calendar;  // UTC
  std::int64_t milliseconds;
};

std::string timeStamp(std::int64_t time) {
  const SplitTime split(time);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", split.calendar, split.milliseconds);
}

// A text without a destructor: a thread-local one with a destructor would keep a module from being
// unloaded, and one of the process would be gone while the log's threads still write at exit.
template <std::size_t capacity>
struct FixedText {
  explicit FixedText(const std::string& text) : length(text.copy(characters, capacity)) {}
  std::string_view view() const { return std::string_view(characters, length); }

  char characters[capacity];
  std::size_t length;
};
using HeaderText = FixedText<128>;
using ThreadText = FixedText<40>;
static_assert(std::is_trivially_destructible_v<HeaderText>);

std::string printHeader() {
  return fmt::format("{:<{}} {:<{}} {:<{}} {:<{}} {:<{}} {:<{}} {:<{}} Message", "Thread",
                     kThreadWidth, "Time", kTimeWidth, "Elapsed", kElapsedWidth, "Session Log Id",
                     kSessionLogIdWidth, "Cat", kCategoryWidth, "Level", kLevelWidth, "RC",
                     kResultCodeWidth);
}

std::string printCurrentThread() {
  std::ostringstream printed;
  printed.imbue(std::locale::classic());  // no digit grouping
  printed << std::this_thread::get_id();
  return printed.str();
}

}  // namespace

std::string logFilePath(const std::string& basePath, std::int64_t time) {
  const SplitTime split(time);
  return fmt::format(
      "{}_{}.txt", basePath,
      fmt::format("{:%Y_%m_%dT%H_%M_%S}_{:03}Z", split.calendar, split.milliseconds));
}

std::string_view headerLine() {
  static const HeaderText text(printHeader());
  return text.view();
}

std::string recordLine(const Record& record) {
  return fmt::format("[{:<{}}] {:<{}} {:<{}d} {:<{}} {:<{}d} {:<{}} {:<{}d} {:<}", record.thread,
                     kBracketedThreadWidth, timeStamp(record.time), kTimeWidth, record.elapsed,
                     kElapsedWidth, record.sessionLogId, kSessionLogIdWidth, record.category,
                     kCategoryWidth, levelTag(record.level), kLevelWidth, record.resultCode,
                     kResultCodeWidth, record.message);
}

const char* levelTag(std::int32_t level) {
  // A negative level is beyond the table as well.
  const auto index = static_cast<std::uint32_t>(level);
  if (index >= kLevelTags.size()) throw std::out_of_range("invalid map<K, T> key");
  return kLevelTags[index];
}

std::string_view currentThreadText() {
  thread_local const ThreadText text(printCurrentThread());
  return text.view();
}

}  // namespace zelta::logging
