#include "platform/registry/registry_linux.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/files/scoped_fd_linux.h"
#include "platform/process/environment.h"
#include "platform/process/error.h"
#include "platform/process/never_destroyed.h"
#include "platform/sync/event_linux.h"

namespace zelta::platform {

namespace {

constexpr std::size_t kLargestFile = 1024 * 1024;  // bytes

[[noreturn]] void fail(int error) { throw std::system_error(error, std::generic_category()); }

struct FileContent {
  int error = 0;  // an errno; 0: none
  std::string bytes;
};

// The file's bytes at this moment; none if it cannot be read.
FileContent readFile(const std::string& path) {
  // Opened without blocking: a pipe in the file's place must not stop the driver.
  const ScopedFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return {errno, {}};
  std::string bytes;
  std::array<char, 4096> chunk;
  while (bytes.size() <= kLargestFile) {
    const ssize_t count = read(file.get(), chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return {errno, {}};
    if (count == 0) return {0, std::move(bytes)};
    bytes.append(chunk.data(), static_cast<std::size_t>(count));
  }
  return {EFBIG, {}};
}

}  // namespace

struct FileRegistry::OpenKey {
  ~OpenKey() {
    if (!watcher.joinable()) return;
    eventfd_write(stop.get(), 1);
    watcher.join();
  }

  std::string file;
  std::u16string path;
  RegistryContent baseline;  // as of the last notification or the opening
  bool changed = false;      // something else was seen since then
  ScopedFd pending;          // the event to signal
  ScopedFd stop;
  std::thread watcher;
};

FileRegistry::FileRegistry(std::function<std::string()> path,
                           std::function<void(const std::string&)> report, const WriterTimes& times)
    : path_(std::move(path)), report_(std::move(report)), times_(times) {}

FileRegistry::~FileRegistry() = default;

std::uint32_t FileRegistry::getDword(const std::u16string& key, const std::u16string& value,
                                     std::uint32_t* out) try {
  const RegistryContent now = read(path_());
  const RegistryValue* found = now.find(key, value);
  if (found == nullptr) return error::kFileNotFound;
  if (found->type != kRegDword) return error::kUnsupportedType;
  if (found->data.size() != sizeof(*out)) return error::kInvalidData;
  *out = 0;
  for (std::size_t i = sizeof(*out); i > 0; --i) *out = *out << 8 | found->data[i - 1];
  return error::kSuccess;
} catch (const std::exception&) {
  return error::kNotEnoughMemory;
}

std::uint32_t FileRegistry::openKey(const std::u16string& key, RegistryKey* out) try {
  *out = nullptr;
  auto opened = std::make_unique<OpenKey>();
  opened->file = std::filesystem::absolute(path_());
  opened->path = key;
  opened->baseline = read(opened->file);
  if (!opened->baseline.hasKey(key)) return error::kFileNotFound;
  const MutexLock lock(mutex_);
  keys_.emplace(lastKey_ + 1, std::move(opened));
  *out = reinterpret_cast<RegistryKey>(++lastKey_);
  return error::kSuccess;
} catch (const std::exception&) {
  return error::kNotEnoughMemory;
}

std::uint32_t FileRegistry::queryValue(RegistryKey key, const std::u16string& value,
                                       std::uint32_t* type, void* data, std::uint32_t* size) try {
  const MutexLock lock(mutex_);
  OpenKey* open = find(key);
  if (open == nullptr) return error::kInvalidHandle;
  const RegistryContent now = read(open->file);
  // If the file's writer is not done, this value may not last. A difference is therefore noted, so
  // that the caller's next notification comes.
  if (!now.sameSubtree(open->baseline, open->path)) open->changed = true;
  const RegistryValue* found = now.find(open->path, value);
  if (found == nullptr) return error::kFileNotFound;
  const auto needed = static_cast<std::uint32_t>(found->data.size());
  const std::uint32_t capacity = std::exchange(*size, needed);
  if (data != nullptr) {
    if (capacity < needed) return error::kMoreData;
    if (needed != 0) std::memcpy(data, found->data.data(), needed);
  }
  if (type != nullptr) *type = found->type;
  return error::kSuccess;
} catch (const std::exception&) {
  return error::kNotEnoughMemory;
}

std::uint32_t FileRegistry::notifyChange(RegistryKey key, EventHandle event) try {
  const MutexLock lock(mutex_);
  OpenKey* open = find(key);
  if (open == nullptr) return error::kInvalidHandle;
  ScopedFd pending = duplicateEvent(event);
  if (!pending) return lastError();
  // Watched first, then read, so that a change in between is noticed.
  if (!open->watcher.joinable()) startWatching(open);
  RegistryContent now = read(open->file);
  open->pending = std::move(pending);
  signalIfChanged(open, std::move(now));
  return error::kSuccess;
} catch (const std::exception&) {
  return error::kNotEnoughMemory;
}

void FileRegistry::closeKey(RegistryKey key) {
  std::unique_ptr<OpenKey> closed;  // joins its thread after the lock is released
  const MutexLock lock(mutex_);
  const auto found = keys_.find(reinterpret_cast<std::uintptr_t>(key));
  if (found == keys_.end()) return;
  closed = std::move(found->second);
  keys_.erase(found);
}

RegistryContent FileRegistry::read(const std::string& file) {
  const auto [error, bytes] = readFile(file);
  if (error != 0) {
    if (error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO) fail(error);
    if (error != ENOENT && error != ENOTDIR) {
      report(file + ": cannot be read: " + std::generic_category().message(error));
    }
  }
  std::size_t skipped = 0;
  return parseRegistryFile(bytes, [&](std::size_t number, std::u16string_view line) {
    if (++skipped > kMaxReports) return;
    report(file + ":" + std::to_string(number) + ": not understood, skipped", line);
  });
}

void FileRegistry::report(const std::string& problem, std::u16string_view line) {
  const std::size_t hash =
      std::hash<std::string>()(problem) ^ std::hash<std::u16string_view>()(line);
  const MutexLock lock(reportMutex_);
  const auto end = reported_.begin() + static_cast<std::ptrdiff_t>(reports_);
  if (reports_ == kMaxReports || std::find(reported_.begin(), end, hash) != end) return;
  reported_[reports_++] = hash;
  report_(reports_ < kMaxReports ? problem : problem + "; no more is reported from here on");
}

FileRegistry::OpenKey* FileRegistry::find(RegistryKey key) {
  const auto found = keys_.find(reinterpret_cast<std::uintptr_t>(key));
  return found == keys_.end() ? nullptr : found->second.get();
}

void FileRegistry::startWatching(OpenKey* key) {
  PathWatch file({key->file});
  key->stop.reset(eventfd(0, EFD_CLOEXEC));
  if (!key->stop) fail(errno);
  if (!file.problem().empty()) report(file.problem());
  key->watcher =
      std::thread([this, key, file = std::move(file)]() mutable { watch(key, std::move(file)); });
}

// Milliseconds, as `poll` takes them.
int FileRegistry::waitFor(std::optional<Clock::time_point> begun) const {
  if (!begun) return -1;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(*begun + times_.longest - Clock::now());
  return static_cast<int>(
      std::max(std::chrono::milliseconds(0), std::min(left, times_.quiet)).count());
}

void FileRegistry::watch(OpenKey* key, PathWatch file) {
  std::array<pollfd, 2> waits{{{key->stop.get(), POLLIN, 0}, {file.fd(), POLLIN, 0}}};
  std::optional<Clock::time_point> begun;  // the writing that is not done
  for (;;) {
    if (!file.isBeingWritten()) {
      begun.reset();
    } else if (!begun) {
      begun = Clock::now();
    }
    if (const int ready = poll(waits.data(), waits.size(), waitFor(begun)); ready >= 0) {
      if (waits[0].revents != 0) return;
      onNews(key, &file, ready == 0 || (begun && Clock::now() - *begun >= times_.longest));
    } else if (errno != EINTR) {
      const MutexLock lock(mutex_);
      return signal(key);  // no longer watched: the waiter has to check
    }
  }
}

void FileRegistry::onNews(OpenKey* key, PathWatch* file, bool isWriterDone) {
  const MutexLock lock(mutex_);
  try {
    if (isWriterDone) {
      file->assumeWritten();
    } else if (!file->takeNews()) {
      return;
    }
    if (!file->problem().empty()) report(file->problem());
    if (key->pending) signalIfChanged(key, read(key->file));
  } catch (const std::exception&) {
    signal(key);  // nothing to compare: the waiter has to check
  }
}

void FileRegistry::signalIfChanged(OpenKey* key, RegistryContent now) {
  const bool changed = key->changed || !now.sameSubtree(key->baseline, key->path);
  key->baseline = std::move(now);
  key->changed = false;
  if (changed) signal(key);
}

void FileRegistry::signal(OpenKey* key) {
  if (key->pending) signalEvent(key->pending.get());
  key->pending.reset();
}

std::string registryFilePath() {
  return environmentOr("ZELTA_REGISTRY", "/etc/zelta/registry.reg");
}

RegistryApi& systemRegistry() {
  static NeverDestroyed<FileRegistry> registry(registryFilePath, [](const std::string& problem) {
    (void)std::fprintf(stderr, "zelta: %s\n", problem.c_str());
  });
  return registry.get();
}

}  // namespace zelta::platform
