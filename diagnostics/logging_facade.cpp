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
#include "platform/files/utf.h"
#include "platform/process/module_loader.h"
#include "platform/process/never_destroyed.h"
#include "platform/process/ports.h"
#include "platform/sync/sync.h"

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

class LoggerWrapper;

// The value of `currentThreshold` while there is no logger; above every level.
constexpr std::uint32_t kNoLogger = 0xFFFFFFFF;

// Held for each use of the process's logger and for its replacement, so that no logger is destroyed
// while a record is written. The file logger's own threads never take it, so that a session's
// logger can be replaced under it.
platform::NeverDestroyed<platform::Mutex> loggerMutexStorage;
platform::Mutex& loggerMutex = loggerMutexStorage.get();

// The process's logger, made by the first log call and ended by `shutDownLogging`. An owning
// pointer that no global destructor deletes: at exit, other threads may still log, or may be gone
// and have left a lock held. Every line is on disk by then.
LoggerWrapper* theLogger ZELTA_GUARDED_BY(loggerMutex) = nullptr;

// The threshold of `theLogger`, for reading without the mutex; changed under it.
std::atomic<std::uint32_t> currentThreshold{kNoLogger};

// A logger, the thread that follows the administrator's threshold, and a reference to this module:
// the threads' code stays mapped even if the module is unloaded without being asked.
class LoggerWrapper {
 public:
  LoggerWrapper();
  // Not under `loggerMutex`, which the thread may need in order to end.
  ~LoggerWrapper() ZELTA_EXCLUDES(loggerMutex);
  LoggerWrapper(const LoggerWrapper&) = delete;
  LoggerWrapper& operator=(const LoggerWrapper&) = delete;

  // Runs `action` on the current logger. Exceptions of the logger go no further: a log call does
  // not fail, and there is no other place for a record that cannot be written.
  template <typename Action>
  void use(Action action) ZELTA_REQUIRES(loggerMutex) {
    try {
      action(*logger_);
    } catch (const std::exception&) {
    }
  }

  // Starts a new file. The old logger stays if the new one cannot be made.
  void startSession(const std::string& id) ZELTA_REQUIRES(loggerMutex);

  std::uint32_t eventFilterMode() const { return eventFilterMode_.load(); }

 private:
  std::unique_ptr<FileLoggerWindows> makeLogger(const std::string& sessionLogId) const;
  void watchPolicy() noexcept;
  void applyPolicy() ZELTA_EXCLUDES(loggerMutex);
  bool isStoppedAfterWait() ZELTA_EXCLUDES(stopMutex_);

  const platform::ScopedModule hold_;  // given up last
  platform::Mutex stopMutex_;
  bool stopRequested_ ZELTA_GUARDED_BY(stopMutex_) = false;
  platform::ConditionVariable stopCondition_;
  const std::string logDirectory_;
  std::atomic<std::uint32_t> eventFilterMode_;  // changed under `loggerMutex` only
  std::unique_ptr<FileLoggerWindows> logger_ ZELTA_GUARDED_BY(loggerMutex);
  std::thread policyWatchThread_;
};

LoggerWrapper::LoggerWrapper()
    : hold_(platform::openModuleOf(&theLogger)),
      logDirectory_(platform::utf8FromUtf16(resolveLogDirectory(*ports().folders))),
      eventFilterMode_(readEventFilterMode(*ports().registry)),
      logger_(makeLogger(kNullSessionLogId)) {
  policyWatchThread_ = std::thread(&LoggerWrapper::watchPolicy, this);
}

LoggerWrapper::~LoggerWrapper() {
  {
    const MutexLock lock(stopMutex_);
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
      const MutexLock lock(loggerMutex);
      use([&error](FileLoggerWindows& logger) {
        logger.LoggerBase::log(static_cast<std::int32_t>(LogLevel::kError), kNoResultCode,
                               error.what());
      });
    }
  } while (!isStoppedAfterWait());
}

void LoggerWrapper::applyPolicy() {
  const std::uint32_t mode = readEventFilterMode(*ports().registry);
  if (mode == eventFilterMode_.load()) return;
  const MutexLock lock(loggerMutex);
  eventFilterMode_.store(mode);
  logger_->setThreshold(mode);
  if (theLogger == this) currentThreshold.store(mode, std::memory_order_relaxed);
}

bool LoggerWrapper::isStoppedAfterWait() {
  MutexLock lock(stopMutex_);
  return stopCondition_.waitFor(
      lock, kPolicyPeriod, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return stopRequested_; });
}

// Null if it cannot be made; the next log call tries again.
LoggerWrapper* loggerOfProcess() ZELTA_REQUIRES(loggerMutex) {
  if (theLogger != nullptr) return theLogger;
  try {
    theLogger = std::make_unique<LoggerWrapper>().release();
  } catch (const std::exception&) {
    return nullptr;  // no memory, no thread: the record is lost
  }
  currentThreshold.store(theLogger->eventFilterMode(), std::memory_order_relaxed);
  return theLogger;
}

std::unique_ptr<LoggerWrapper> takeLogger() ZELTA_EXCLUDES(loggerMutex) {
  const MutexLock lock(loggerMutex);
  currentThreshold.store(kNoLogger, std::memory_order_relaxed);
  return std::unique_ptr<LoggerWrapper>(std::exchange(theLogger, nullptr));
}

template <typename Action>
void useLogger(Action action) {
  const MutexLock lock(loggerMutex);
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
  // Intentional: the backslash follows even a path that ends in one; a doubled one does no harm.
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

bool isDropped(LogLevel level) {
  return static_cast<std::uint32_t>(level) > currentThreshold.load(std::memory_order_relaxed);
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
  if (isDropped(LogLevel::kDebug)) return;
  useLogger([&](FileLoggerWindows& logger) { writeByteDump(logger, bytes, length, bytesPerLine); });
}

void setSessionLogId(const std::string& id) {
  const MutexLock lock(loggerMutex);
  if (LoggerWrapper* logger = loggerOfProcess()) logger->startSession(id);
}

void shutDownLogging() { takeLogger(); }

bool hasLogger() { return currentThreshold.load(std::memory_order_relaxed) != kNoLogger; }

}  // namespace zelta
