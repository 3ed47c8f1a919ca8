// The registry of one file in the export format (registry_file.h).
//
// Beyond registry.h:
//   - The file is read anew for every call. If a program writes it in place, half-written content
//     may be seen; not if it renames a finished file over it.
//   - A key stays with the file that it was opened in. An open key that is deleted has no values
//     until it is written again (ERROR_FILE_NOT_FOUND (2)); both are changes.
//   - A file that cannot be read, or is larger than 1 MiB, is an empty registry. If the system
//     lacks memory or descriptors, the call fails with ERROR_NOT_ENOUGH_MEMORY (8) and a pending
//     notification is signalled.
//   - Writing the same value once more, or a name in other case, is no change.
//   - The event of a notification may be closed before the key.
// From its first notification on, a key has a thread that watches the file; closing the key joins
// it. Without open keys the object holds no memory, thread or descriptor. An open key's file is
// read under the object's lock. Not sd-event: that thread has one poll of two descriptors.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/files/path_watch_linux.h"
#include "platform/registry/registry.h"
#include "platform/registry/registry_file.h"
#include "platform/sync/sync.h"

namespace zelta::platform {

// $ZELTA_REGISTRY, or /etc/zelta/registry.reg if the variable is unset or empty.
std::string registryFilePath();

class FileRegistry final : public RegistryApi {
 public:
  // Maximum number of distinct problems reported; the last report says that it is the last.
  static constexpr std::size_t kMaxReports = 64;

  // The times after which a writer that keeps the file open counts as done.
  struct WriterTimes {
    std::chrono::milliseconds quiet{200};     // after it has written last
    std::chrono::milliseconds longest{2000};  // after it has begun, even if it never pauses
  };

  // `path` gives the file's path. `report` is called once for each line that is not understood and
  // for a file that cannot be read or watched. It is called by one thread at a time, with locks
  // held, and must not call back.
  FileRegistry(std::function<std::string()> path, std::function<void(const std::string&)> report,
               const WriterTimes& times);
  FileRegistry(std::function<std::string()> path, std::function<void(const std::string&)> report)
      : FileRegistry(std::move(path), std::move(report), WriterTimes()) {}
  ~FileRegistry() override;  // no key may be open

  std::uint32_t getDword(const std::u16string& key, const std::u16string& value,
                         std::uint32_t* out) override;
  std::uint32_t openKey(const std::u16string& key, RegistryKey* out) override;
  std::uint32_t queryValue(RegistryKey key, const std::u16string& value, std::uint32_t* type,
                           void* data, std::uint32_t* size) override;
  std::uint32_t notifyChange(RegistryKey key, EventHandle event) override;
  void closeKey(RegistryKey key) override;

 private:
  using Clock = std::chrono::steady_clock;
  struct OpenKey;

  // Throws if the system lacks the means to read.
  RegistryContent read(const std::string& file);
  void report(const std::string& problem, std::u16string_view line = {})
      ZELTA_EXCLUDES(reportMutex_);
  OpenKey* find(RegistryKey key) ZELTA_REQUIRES(mutex_);
  void startWatching(OpenKey* key) ZELTA_REQUIRES(mutex_);
  int waitFor(std::optional<Clock::time_point> begun) const;
  // The key's thread, until the key is closed.
  void watch(OpenKey* key, PathWatch file) ZELTA_EXCLUDES(mutex_);
  void onNews(OpenKey* key, PathWatch* file, bool isWriterDone) ZELTA_EXCLUDES(mutex_);
  void signalIfChanged(OpenKey* key, RegistryContent now) ZELTA_REQUIRES(mutex_);
  static void signal(OpenKey* key);

  const std::function<std::string()> path_;
  const std::function<void(const std::string&)> report_;
  const WriterTimes times_;

  Mutex mutex_ ZELTA_ACQUIRED_BEFORE(reportMutex_);
  std::uintptr_t lastKey_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::map<std::uintptr_t, std::unique_ptr<OpenKey>> keys_ ZELTA_GUARDED_BY(mutex_);

  Mutex reportMutex_;
  // Hashes rather than texts, so that nothing is allocated.
  std::array<std::size_t, kMaxReports> reported_ ZELTA_GUARDED_BY(reportMutex_){};
  std::size_t reports_ ZELTA_GUARDED_BY(reportMutex_) = 0;
};

}  // namespace zelta::platform
