// The file logger of a process with several threads, which starts a new file after a period.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "logging/file_logger.h"
#include "logging/registry_change_notifier.h"
#include "platform/sync/sync.h"

namespace zelta::logging {

// Any thread may log. A rotation thread starts a new file when the current one has been open for
// the rotation period (old files are kept). The period follows a registry value,
// SOFTWARE\Vornhalt\ZeltaAgent "ZeltaLogRotationTime": a number of minutes as text, 0 for no
// rotation by time. Until a valid one has been read, the constructor's period applies.
class FileLoggerWindows : public FileLogger {
 public:
  // The period is in milliseconds; 0 or less means no rotation by time. If the registry value
  // cannot be read or watched, the new file gets an Error record; that is no failure.
  FileLoggerWindows(std::uint32_t category, std::uint32_t threshold, std::string sessionLogId,
                    std::string basePath, std::int64_t initialRotationPeriod);
  // Ends both threads and closes the file. No thread may log or use a child any more.
  ~FileLoggerWindows() override;

  void writeLine(const std::string& message, std::uint32_t category, std::int32_t level,
                 std::int32_t resultCode, const std::string& sessionLogId) override;

  // Milliseconds.
  std::int64_t rotationPeriod() const { return rotationPeriod_.load(); }

 private:
  void startNotifier();
  void onRotationTimeChanged(const std::string& text);
  void runRotation();
  bool waitForRotation(platform::MutexLock& lock) ZELTA_REQUIRES(rotationMutex_);
  void rotate() noexcept ZELTA_REQUIRES(rotationMutex_);

  std::unique_ptr<RegistryChangeNotifier> notifier_;  // may be empty
  std::atomic<std::int64_t> rotationPeriod_;          // milliseconds
  platform::Mutex writeMutex_;                        // line writes and the file's replacement
  platform::Mutex rotationMutex_ ZELTA_ACQUIRED_BEFORE(writeMutex_);
  bool periodChanged_ ZELTA_GUARDED_BY(rotationMutex_) = false;
  bool stopRequested_ ZELTA_GUARDED_BY(rotationMutex_) = false;
  platform::ConditionVariable rotationCondition_;
  std::thread rotationThread_;
};

}  // namespace zelta::logging
