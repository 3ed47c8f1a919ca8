#include "diagnostics/logging_facade.h"

#include <array>
#include <atomic>
#include <chrono>
#include <exception>
#include <memory>
#include <thread>
#include <utility>

#include "diagnostics/byte_dump.h"
#include "diagnostics/log.h"
#include "diagnostics/log_output.h"
#include "logging/zelta_logging.h"
#include "platform/never_destroyed.h"
#include "platform/ports.h"
#include "platform/sync.h"
#include "platform/utf.h"

namespace zelta {

namespace {

using logging::FileLoggerWindows;
using platform::MutexLock;
using platform::ports;

constexpr char16_t kLogSubdirectory[] = u"\\Vornhalt\\ZeltaAgent\\logs\\";
constexpr std::size_t kPathBufferSize = 261;     // UTF-16 units
constexpr std::uint32_t kLongestFallback = 259;  // UTF-16 units

constexpr char16_t kPolicyKey[] = u"SOFTWARE\\Policies\\Vornhalt\\Zelta\\zelta_admin";
constexpr char16_t kPolicyDefaultsKey[] =
    u"SOFTWARE\\Policies\\Vornhalt\\Zelta\\zelta_admin_defaults";
constexpr char16_t kEventFilterMode[] = u"zelta.event_filter_mode";
constexpr std::uint32_t kHighestEventFilterMode = 3;

constexpr std::chrono::seconds kPolicyPeriod(1);
constexpr std::uint32_t kCategory = 0;

// The process's logger and the thread that keeps its threshold as the administrator wants it.
//
// Any thread may use it. `loggerMutex_` is held for each use and for the logger's replacement, and
// is taken before the logger's own locks. The logger's threads never take it, so that a logger can
// be destroyed under it.
class LoggerWrapper {
 public:
  LoggerWrapper();
  ~LoggerWrapper();
  LoggerWrapper(const LoggerWrapper&) = delete;
  LoggerWrapper& operator=(const LoggerWrapper&) = delete;

  // Runs `action` on the current logger. What the logger throws goes no further: a log call does
  // not fail, and a record that cannot be written has no other place to go.
  template <typename Action>
  void use(Action action) {
    MutexLock lock(loggerMutex_);
    try {
      action(*logger_);
    } catch (const std::exception&) {
    }
  }

  // Starts a new file. The old logger stays where the new one cannot be made.
  void startSession(const std::string& id);

 private:
  std::unique_ptr<FileLoggerWindows> makeLogger(const std::string& sessionLogId) const;
  void watchPolicy() noexcept;
  void applyPolicy();
  bool isStoppedAfterWait();

  platform::Mutex loggerMutex_;
  platform::Mutex stopMutex_;
  bool stopRequested_ ZELTA_GUARDED_BY(stopMutex_) = false;
  platform::ConditionVariable stopCondition_;
  const std::string logDirectory_;
  std::atomic<std::uint32_t> eventFilterMode_;  // changed under `loggerMutex_` only
  std::unique_ptr<FileLoggerWindows> logger_ ZELTA_GUARDED_BY(loggerMutex_);
  std::thread policyWatchThread_;
};

LoggerWrapper::LoggerWrapper()
    : logDirectory_(platform::utf8FromUtf16(resolveLogDirectory(*ports().folders))),
      eventFilterMode_(readEventFilterMode(*ports().registry)),
      logger_(makeLogger(kNullSessionLogId)) {
  policyWatchThread_ = std::thread(&LoggerWrapper::watchPolicy, this);
}

LoggerWrapper::~LoggerWrapper() {
  {
    MutexLock lock(stopMutex_);
    stopRequested_ = true;
  }
  stopCondition_.notifyAll();
  if (policyWatchThread_.joinable()) policyWatchThread_.join();
}

std::unique_ptr<FileLoggerWindows> LoggerWrapper::makeLogger(
    const std::string& sessionLogId) const {
  return std::make_unique<FileLoggerWindows>(kCategory, eventFilterMode_.load(), sessionLogId,
                                             logDirectory_ + kLogBaseName, 0);
}

void LoggerWrapper::startSession(const std::string& id) {
  MutexLock lock(loggerMutex_);
  try {
    logger_ = makeLogger(id);
  } catch (const std::exception&) {
    // As in `use`.
  }
}

void LoggerWrapper::watchPolicy() noexcept {
  do {
    try {
      applyPolicy();
    } catch (const std::exception& error) {
      use([&error](FileLoggerWindows& logger) {
        logger.LoggerBase::log(static_cast<std::int32_t>(LogLevel::Error), kNoResultCode,
                               error.what());
      });
    }
  } while (!isStoppedAfterWait());
}

void LoggerWrapper::applyPolicy() {
  const std::uint32_t mode = readEventFilterMode(*ports().registry);
  if (mode == eventFilterMode_.load()) return;
  MutexLock lock(loggerMutex_);
  eventFilterMode_.store(mode);
  logger_->setThreshold(mode);
}

bool LoggerWrapper::isStoppedAfterWait() {
  MutexLock lock(stopMutex_);
  return stopCondition_.waitFor(
      lock, kPolicyPeriod, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return stopRequested_; });
}

// The process's logger, made by the first log call and ended by `shutDownLogging`. It owns what it
// points to, and no destructor of the process's globals ends it: while a process exits the other
// threads may still log, or may be gone already with a lock in their hands. Every line is on disk
// by then, and the system takes back the rest.
std::atomic<LoggerWrapper*> theLogger{nullptr};
platform::NeverDestroyed<platform::Mutex> creationMutex;

// Null where it cannot be made; the next log call tries again.
LoggerWrapper* loggerOfProcess() {
  if (LoggerWrapper* existing = theLogger.load(std::memory_order_acquire)) return existing;
  MutexLock lock(creationMutex.get());
  LoggerWrapper* logger = theLogger.load(std::memory_order_relaxed);
  if (logger != nullptr) return logger;
  try {
    logger = std::make_unique<LoggerWrapper>().release();
  } catch (const std::exception&) {
    return nullptr;  // no memory, no thread: the record is lost
  }
  theLogger.store(logger, std::memory_order_release);
  return logger;
}

template <typename Action>
void useLogger(Action action) {
  if (LoggerWrapper* logger = loggerOfProcess()) logger->use(action);
}

std::u16string pathInBuffer(const std::array<char16_t, kPathBufferSize>& buffer,
                            std::uint32_t length) {
  if (length == 0 || length > kLongestFallback) return std::u16string();
  return std::u16string(buffer.data(), length) + u'\\';
}

}  // namespace

std::u16string resolveLogDirectory(platform::FolderApi& folders) {
  char16_t* programData = nullptr;
  if (folders.programData(&programData) >= 0 && programData != nullptr) {
    std::u16string directory = std::u16string(programData) + kLogSubdirectory;
    folders.taskMemFree(programData);
    return directory;
  }
  std::array<char16_t, kPathBufferSize> buffer{};
  std::uint32_t length = folders.tempPath(buffer.data(), kPathBufferSize);
  if (length == 0) {
    buffer.fill(0);
    length = folders.currentDirectory(buffer.data(), kPathBufferSize);
  }
  // The backslash follows even a path that ends in one; a doubled separator does no harm.
  return pathInBuffer(buffer, length);
}

std::uint32_t readEventFilterMode(platform::RegistryApi& registry) {
  std::uint32_t mode = 0;
  if (registry.getDword(kPolicyKey, kEventFilterMode, &mode) == 0 &&
      mode <= kHighestEventFilterMode) {
    return mode;
  }
  if (registry.getDword(kPolicyDefaultsKey, kEventFilterMode, &mode) == 0 &&
      mode <= kHighestEventFilterMode) {
    return mode;
  }
  return kDefaultEventFilterMode;
}

void writeFilteredRecord(LogLevel level, std::int32_t code, const std::string& message) {
  useLogger([&](FileLoggerWindows& logger) {
    logger.LoggerBase::log(static_cast<std::int32_t>(level), code, message);
  });
}

void writeRecord(std::uint8_t level, std::int32_t code, const std::string& message) {
  useLogger([&](FileLoggerWindows& logger) {
    logger.log(message, static_cast<std::int32_t>(level), code);
  });
}

void logByteDump(const std::uint8_t* bytes, std::uint64_t length, std::uint64_t bytesPerLine) {
  useLogger([&](FileLoggerWindows& logger) { writeByteDump(logger, bytes, length, bytesPerLine); });
}

void setSessionLogId(const std::string& id) {
  if (LoggerWrapper* logger = loggerOfProcess()) logger->startSession(id);
}

void shutDownLogging() {
  MutexLock lock(creationMutex.get());
  const std::unique_ptr<LoggerWrapper> ended(theLogger.exchange(nullptr));
}

}  // namespace zelta
