// Not spdlog: here each session begins a new file, and a line is on disk when the call returns.
#include "logging/file_logger_windows.h"

#include <fmt/format.h>

#include <exception>
#include <limits>
#include <optional>
#include <utility>

#include "logging/rotation_time.h"
#include "platform/process/ports.h"

namespace zelta::logging {

namespace {

using platform::kClockUnitsPerMillisecond;
using platform::MutexLock;

constexpr char kRotationTimeKey[] = "SOFTWARE\\Vornhalt\\ZeltaAgent";
constexpr char kRotationTimeValue[] = "ZeltaLogRotationTime";

// The clock's last millisecond; the clock counts in smaller units. A file whose time is up later is
// never replaced.
constexpr std::int64_t kLastMillisecond =
    std::numeric_limits<std::int64_t>::max() / kClockUnitsPerMillisecond;

constexpr std::int32_t kError = static_cast<std::int32_t>(Level::kError);
constexpr std::int32_t kInfo = static_cast<std::int32_t>(Level::kInfo);
constexpr std::int32_t kDebug = static_cast<std::int32_t>(Level::kDebug);

}  // namespace

FileLoggerWindows::FileLoggerWindows(std::uint32_t category, std::uint32_t threshold,
                                     std::string sessionLogId, std::string basePath,
                                     std::int64_t initialRotationPeriod)
    : FileLogger(category, threshold, std::move(sessionLogId), nullptr, std::move(basePath)),
      rotationPeriod_(initialRotationPeriod) {
  startNotifier();
  try {
    rotationThread_ = std::thread(&FileLoggerWindows::runRotation, this);
  } catch (...) {
    notifier_.reset();  // its thread uses the other members
    throw;
  }
}

FileLoggerWindows::~FileLoggerWindows() {
  try {
    {
      const MutexLock lock(rotationMutex_);
      stopRequested_ = true;
    }
    rotationCondition_.notifyAll();
    rotationThread_.join();
    notifier_.reset();
  } catch (const std::exception& error) {
    logErrorOrLose(*this, kOwnErrorCode, [&] {
      return fmt::format("Unexpected error occurred during logger cleanup: {}", error.what());
    });
  }
}

void FileLoggerWindows::writeLine(const std::string& message, std::uint32_t category,
                                  std::int32_t level, std::int32_t resultCode,
                                  const std::string& sessionLogId) {
  const MutexLock lock(writeMutex_);
  FileLogger::writeLine(message, category, level, resultCode, sessionLogId);
}

void FileLoggerWindows::startNotifier() {
  try {
    // The notifier reports through a child, which the callback owns: both outlive the notifier's
    // thread. The child keeps the threshold of this moment.
    std::shared_ptr<FileLogger> child = createChildForCategory(category());
    LoggerBase* const childLogger = child.get();
    notifier_ = std::make_unique<RegistryChangeNotifier>(
        kRotationTimeKey, kRotationTimeValue,
        [this, child = std::move(child)](const std::string& text) { onRotationTimeChanged(text); },
        childLogger);
  } catch (const std::exception& error) {
    LoggerBase::log(kError, kOwnErrorCode, error.what());
  }
}

void FileLoggerWindows::onRotationTimeChanged(const std::string& text) {
  const std::optional<std::int32_t> minutes = rotationMinutes(text);
  if (!minutes.has_value()) {
    LoggerBase::log(kError, kOwnErrorCode,
                    fmt::format("Invalid log rotation time obtained (\"{}\"). Conversion failed. "
                                "Continue to use existing rotation time.",
                                text));
    return;
  }
  if (*minutes < 0) {
    LoggerBase::log(kError, kOwnErrorCode,
                    fmt::format("Invalid log rotation time obtained (\"{}\") mins. Continue to "
                                "use existing rotation time.",
                                *minutes));
    return;
  }
  const std::int64_t period = *minutes * kMillisecondsPerMinute;
  if (period == rotationPeriod_.load()) {
    LoggerBase::log(kDebug, 0,
                    fmt::format("New rotation time is (\"{}\") mins which is the same as the last "
                                "rotation time",
                                text));
    return;
  }
  {
    const MutexLock lock(rotationMutex_);
    LoggerBase::log(kInfo, 0, fmt::format("Setting log rotation time to: {} mins", *minutes));
    rotationPeriod_.store(period);
    periodChanged_ = true;
  }
  rotationCondition_.notifyAll();
}

void FileLoggerWindows::runRotation() {
  MutexLock lock(rotationMutex_);
  while (!stopRequested_) {
    if (!waitForRotation(lock)) rotate();
    periodChanged_ = false;
  }
}

// False if the time ran out and nothing else happened.
bool FileLoggerWindows::waitForRotation(MutexLock& lock) {
  const auto isWoken = [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    return stopRequested_ || periodChanged_;
  };
  // Only this thread replaces the file, so its creation time can be read here.
  const std::int64_t begin = fileCreationTime();
  const std::int64_t period = rotationPeriod_.load();
  if (period <= 0 || period > kLastMillisecond - begin) {
    rotationCondition_.wait(lock, isWoken);
    return true;
  }
  return platform::ports().clock->waitUntil(rotationCondition_, lock,
                                            (begin + period) * kClockUnitsPerMillisecond, isWoken);
}

void FileLoggerWindows::rotate() noexcept {
  try {
    const MutexLock lock(writeMutex_);
    startNewFile();
  } catch (const std::exception& error) {
    logErrorOrLose(*this, kOwnErrorCode, [&] { return std::string(error.what()); });
  }
}

}  // namespace zelta::logging
