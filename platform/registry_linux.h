// The registry of one file in the export format (platform/registry_file.h).
//
// The system's own registry is one of these; tests and tools may have others. Beyond registry.h:
//   - The file is read as it is at the moment of the call. A program that writes it in place may
//     be seen half-way; one that renames a finished file over it is not.
//   - The file's path is asked for anew when no key is open, else it stays.
//   - A key that is deleted while it is open has no values (2) and is there again when it is
//     written again; deletion and return are changes.
//   - A file that is there but not readable is an empty registry. Where the system lacks memory or
//     descriptors the call fails (8), and a pending notification is signalled.
//   - Changed means: the key and what is below it hold something else. Writing the same value once
//     more, or a name in other case, is no change.
//   - While a key with a notification is open, one thread watches the file; closing the last such
//     key joins it. Without open keys the object holds no memory, thread or descriptor.
//   - The event of a notification may be closed before the key.
// A lock of its own is held while the file is read; nothing else is locked under it.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "platform/clock.h"
#include "platform/once_reporter.h"
#include "platform/registry.h"
#include "platform/registry_content.h"
#include "platform/registry_file.h"
#include "platform/registry_source_linux.h"
#include "platform/registry_watch_linux.h"
#include "platform/scoped_fd_linux.h"
#include "platform/sync.h"

namespace zelta::platform {

// Where the system's registry lies: $ZELTA_REGISTRY, or /etc/zelta/registry.reg where the variable
// is unset or empty.
std::string registryFilePath();

class FileRegistry final : public RegistryApi {
 public:
  // `path` gives the file's path. `report` is told, once each, of lines that are not understood
  // and of a file that cannot be read or watched. It is called by one thread at a time, with locks
  // held, and must not call back.
  // `clock` (non-owning) tells a file that may still change unseen from one that is old.
  FileRegistry(std::function<std::string()> path, std::function<void(const std::string&)> report,
               WallClock& clock = systemWallClock());
  // No key may be open.
  ~FileRegistry() override = default;

  std::uint32_t getDword(const std::u16string& key, const std::u16string& value,
                         std::uint32_t* out) override;
  std::uint32_t openKey(const std::u16string& key, RegistryKey* out) override;
  std::uint32_t queryValue(RegistryKey key, const std::u16string& value, std::uint32_t* type,
                           void* data, std::uint32_t* size) override;
  std::uint32_t notifyChange(RegistryKey key, EventHandle event) override;
  void closeKey(RegistryKey key) override;

 private:
  using Content = std::shared_ptr<const RegistryContent>;

  struct OpenKey {
    std::u16string path;
    Content baseline;      // what the last notification, or the opening, has taken note of
    bool changed = false;  // something else was seen since then
    bool watched = false;  // has had a notification: the watcher stays
    ScopedFd pending;      // the event to signal
  };

  // The answer to a question that is put every second; without memory of its own, so that nothing
  // is held between the questions.
  struct Answer {
    static constexpr std::size_t kLongest = 256;
    std::size_t length = 0;  // units of `question`; 0 is a free place
    std::array<char16_t, kLongest> question{};
    FileSignature signature;
    std::uint32_t result = 0;
    std::uint32_t value = 0;
  };

  static constexpr std::size_t kAnswers = 4;

  std::string path() ZELTA_REQUIRES(mutex_);
  // The file's content now, kept while a key is open; null where it cannot be known at the moment.
  // `settled` (may be null): the signature to which the content belongs for good, if any.
  Content content(FileSignature* settled) ZELTA_REQUIRES(mutex_);
  void reportSkipped(const std::string& file, const ParsedRegistry& parsed);
  OpenKey* find(RegistryKey key) ZELTA_REQUIRES(mutex_);
  bool startWatching() ZELTA_REQUIRES(mutex_);
  void signalIfChanged(OpenKey* key, const Content& now) ZELTA_REQUIRES(mutex_);
  void onFileChange() ZELTA_EXCLUDES(mutex_);

  const std::function<std::string()> pathSource_;
  OnceReporter reporter_;
  WallClock& clock_;

  Mutex mutex_;
  std::uintptr_t lastKey_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::map<std::uintptr_t, OpenKey> keys_ ZELTA_GUARDED_BY(mutex_);
  std::string openPath_ ZELTA_GUARDED_BY(mutex_);  // while a key is open
  Content kept_ ZELTA_GUARDED_BY(mutex_);          // null where nothing is kept
  FileSignature keptSignature_ ZELTA_GUARDED_BY(mutex_);
  std::unique_ptr<FileWatcher> watcher_ ZELTA_GUARDED_BY(mutex_);
  std::array<Answer, kAnswers> answers_ ZELTA_GUARDED_BY(mutex_);
  std::size_t nextAnswer_ ZELTA_GUARDED_BY(mutex_) = 0;
};

}  // namespace zelta::platform
