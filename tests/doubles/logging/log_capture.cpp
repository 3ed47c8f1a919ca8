#include "tests/doubles/logging/log_capture.h"

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <iterator>
#include <mutex>
#include <stdexcept>

#include "diagnostics/log_output.h"
#include "platform/process/never_destroyed.h"

namespace zelta::test {

namespace {

using Captured = LogCapture::Captured;

struct Store {
  std::mutex mutex;
  std::condition_variable added;
  Captured captured;
  std::function<void(const LogRecord&)> hook;
};

// Threads may log until the process ends.
Store& store() {
  static platform::NeverDestroyed<Store> instance;
  return instance.get();
}

template <typename Action>
auto withCaptured(Action action) {
  const std::lock_guard<std::mutex> lock(store().mutex);
  return action(store().captured);
}

void add(const LogRecord& record) {
  std::function<void(const LogRecord&)> hook;
  withCaptured([&](Captured& captured) {
    captured.records.push_back(record);
    captured.hasLogger = true;
    hook = store().hook;
    store().added.notify_all();
  });
  if (hook) hook(record);
}

template <typename Predicate>
std::vector<LogRecord> select(const std::vector<LogRecord>& records, Predicate predicate) {
  std::vector<LogRecord> selected;
  std::copy_if(records.begin(), records.end(), std::back_inserter(selected), predicate);
  return selected;
}

constexpr auto kError = static_cast<std::uint8_t>(LogLevel::kError);
constexpr auto kInfo = static_cast<std::uint8_t>(LogLevel::kInfo);
constexpr auto kDebug = static_cast<std::uint8_t>(LogLevel::kDebug);

}  // namespace

bool operator==(const LogRecord& a, const LogRecord& b) {
  return a.level == b.level && a.code == b.code && a.text == b.text && a.filtered == b.filtered;
}

std::ostream& operator<<(std::ostream& out, const LogRecord& record) {
  return out << "[" << int{record.level} << " " << record.code
             << (record.filtered ? "" : " straight") << " \"" << record.text << "\"]";
}

LogRecord debug(const std::string& text) { return {kDebug, 0, text, true}; }
LogRecord info(const std::string& text) { return {kInfo, 0, text, true}; }
LogRecord error(std::uint32_t code, const std::string& text) {
  return {kError, static_cast<std::int32_t>(code), text, true};
}

LogCapture::LogCapture() { clear(); }

LogCapture::~LogCapture() {
  setHook(nullptr);
  clear();
}

LogCapture::Captured LogCapture::captured() const {
  return withCaptured([](const Captured& all) { return all; });
}

std::vector<LogRecord> LogCapture::recordsAboveDebug() const {
  return select(records(), [](const LogRecord& record) { return record.level < kDebug; });
}

std::vector<LogRecord> LogCapture::errors() const {
  return select(records(), [](const LogRecord& record) { return record.level == kError; });
}

std::size_t LogCapture::count(const std::string& text) const {
  return select(records(), [&](const LogRecord& record) { return record.text == text; }).size();
}

bool LogCapture::contains(const LogRecord& wanted) const {
  return !select(records(), [&](const LogRecord& record) { return record == wanted; }).empty();
}

bool LogCapture::waitFor(const std::string& text, std::chrono::milliseconds limit) const {
  std::unique_lock<std::mutex> lock(store().mutex);
  return store().added.wait_for(lock, limit, [&] {
    const std::vector<LogRecord>& records = store().captured.records;
    return std::any_of(records.begin(), records.end(),
                       [&](const LogRecord& record) { return record.text == text; });
  });
}

void LogCapture::clear() {
  withCaptured([](Captured& all) { all = Captured(); });
}
void LogCapture::failShutDown() {
  withCaptured([](Captured& all) { all.shutDownFails = true; });
}
void LogCapture::setHook(std::function<void(const LogRecord&)> hook) {
  withCaptured([&](Captured&) { store().hook = std::move(hook); });
}
void LogCapture::setShutDownHook(std::function<void()> hook) {
  withCaptured([&](Captured& all) { all.shutDownHook = std::move(hook); });
}

}  // namespace zelta::test

namespace zelta {

using test::Captured;
using test::withCaptured;

bool isDropped(LogLevel /*level*/) { return false; }

void writeFilteredRecord(LogLevel level, std::int32_t code, const std::string& message) {
  test::add({static_cast<std::uint8_t>(level), code, message, true});
}

void writeRecord(std::uint8_t level, std::int32_t code, const std::string& message) {
  test::add({level, code, message, false});
}

void setSessionLogId(const std::string& id) {
  withCaptured([&](Captured& all) { all.sessionIds.push_back(id); });
}

void shutDownLogging() {
  std::function<void()> hook;
  withCaptured([&hook](Captured& all) {
    hook = all.shutDownHook;
    if (all.shutDownFails) throw std::runtime_error("a thread cannot be joined");
    all.hasLogger = false;
    ++all.shutDowns;
    all.recordsAtShutDown = all.records.size();
  });
  if (hook) hook();
}

bool hasLogger() {
  return withCaptured([](const Captured& all) { return all.hasLogger; });
}

void logByteDump(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t bytesPerLine) {
  withCaptured([&](Captured& all) {
    all.byteDumps.push_back({{bytes, bytes + length}, bytesPerLine});
  });
}

}  // namespace zelta
