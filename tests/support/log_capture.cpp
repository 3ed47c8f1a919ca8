#include "tests/support/log_capture.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <stdexcept>

#include "diagnostics/log_output.h"

namespace zelta::test {

namespace {

struct Store {
  std::mutex mutex;
  std::condition_variable added;
  std::vector<LogRecord> records;
  std::vector<std::string> sessionIds;
  std::vector<ByteDump> byteDumps;
  bool hasLogger = false;
  int shutDowns = 0;
  bool shutDownFails = false;
  std::size_t recordsAtShutDown = 0;
  std::function<void(const LogRecord&)> hook;
};

// Never destroyed: threads may log until the process ends.
Store& store() {
  static Store& instance = *new Store;
  return instance;
}

void clearStore() {
  Store& all = store();
  const std::lock_guard<std::mutex> lock(all.mutex);
  all.records.clear();
  all.sessionIds.clear();
  all.byteDumps.clear();
  all.hasLogger = false;
  all.shutDowns = 0;
  all.shutDownFails = false;
  all.recordsAtShutDown = 0;
}

void add(LogRecord record) {
  Store& all = store();
  std::function<void(const LogRecord&)> hook;
  {
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.records.push_back(record);
    all.hasLogger = true;
    hook = all.hook;
    all.added.notify_all();
  }
  if (hook) hook(record);
}

template <typename Predicate>
std::vector<LogRecord> select(Predicate predicate) {
  Store& all = store();
  const std::lock_guard<std::mutex> lock(all.mutex);
  std::vector<LogRecord> selected;
  std::copy_if(all.records.begin(), all.records.end(), std::back_inserter(selected), predicate);
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

LogCapture::LogCapture() { clearStore(); }

LogCapture::~LogCapture() {
  setHook(nullptr);
  clearStore();
}

std::vector<LogRecord> LogCapture::records() const {
  return select([](const LogRecord&) { return true; });
}

std::vector<LogRecord> LogCapture::recordsAboveDebug() const {
  return select([](const LogRecord& record) { return record.level < kDebug; });
}

std::vector<LogRecord> LogCapture::errors() const {
  return select([](const LogRecord& record) { return record.level == kError; });
}

std::size_t LogCapture::count(const std::string& text) const {
  return select([&](const LogRecord& record) { return record.text == text; }).size();
}

bool LogCapture::contains(const LogRecord& wanted) const {
  return !select([&](const LogRecord& record) { return record == wanted; }).empty();
}

bool LogCapture::waitFor(const std::string& text, std::chrono::milliseconds limit) const {
  Store& all = store();
  std::unique_lock<std::mutex> lock(all.mutex);
  return all.added.wait_for(lock, limit, [&] {
    return std::any_of(all.records.begin(), all.records.end(),
                       [&](const LogRecord& record) { return record.text == text; });
  });
}

void LogCapture::clear() { clearStore(); }

std::vector<std::string> LogCapture::sessionIds() const {
  Store& all = store();
  const std::lock_guard<std::mutex> lock(all.mutex);
  return all.sessionIds;
}

int LogCapture::shutDowns() const {
  Store& all = store();
  const std::lock_guard<std::mutex> lock(all.mutex);
  return all.shutDowns;
}

std::size_t LogCapture::recordsAtShutDown() const {
  Store& all = store();
  const std::lock_guard<std::mutex> lock(all.mutex);
  return all.recordsAtShutDown;
}

void LogCapture::failShutDown() {
  Store& all = store();
  const std::lock_guard<std::mutex> lock(all.mutex);
  all.shutDownFails = true;
}

std::vector<ByteDump> LogCapture::byteDumps() const {
  Store& all = store();
  const std::lock_guard<std::mutex> lock(all.mutex);
  return all.byteDumps;
}

void LogCapture::setHook(std::function<void(const LogRecord&)> hook) {
  Store& all = store();
  const std::lock_guard<std::mutex> lock(all.mutex);
  all.hook = std::move(hook);
}

}  // namespace zelta::test

namespace zelta {

bool isDropped(LogLevel /*level*/) { return false; }

void writeFilteredRecord(LogLevel level, std::int32_t code, const std::string& message) {
  test::add({static_cast<std::uint8_t>(level), code, message, true});
}

void writeRecord(std::uint8_t level, std::int32_t code, const std::string& message) {
  test::add({level, code, message, false});
}

void setSessionLogId(const std::string& id) {
  test::Store& all = test::store();
  const std::lock_guard<std::mutex> lock(all.mutex);
  all.sessionIds.push_back(id);
}

void shutDownLogging() {
  test::Store& all = test::store();
  const std::lock_guard<std::mutex> lock(all.mutex);
  if (all.shutDownFails) throw std::runtime_error("a thread cannot be joined");
  all.hasLogger = false;
  ++all.shutDowns;
  all.recordsAtShutDown = all.records.size();
}

bool hasLogger() {
  test::Store& all = test::store();
  const std::lock_guard<std::mutex> lock(all.mutex);
  return all.hasLogger;
}

void logByteDump(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t bytesPerLine) {
  test::Store& all = test::store();
  const std::lock_guard<std::mutex> lock(all.mutex);
  all.byteDumps.push_back({{bytes, bytes + length}, bytesPerLine});
}

}  // namespace zelta
