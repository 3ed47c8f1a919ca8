#include "platform/registry_linux.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <utility>

#include "platform/error.h"
#include "platform/event_linux.h"
#include "platform/never_destroyed.h"

namespace zelta::platform {

namespace {

constexpr std::size_t kDwordSize = 4;  // bytes

std::uint32_t dwordOf(const RegistryValue* value, std::uint32_t* out) {
  if (value == nullptr) return error::kFileNotFound;
  if (value->type != kRegDword) return error::kUnsupportedType;
  if (value->data.size() != kDwordSize) return error::kInvalidData;
  std::uint32_t number = 0;
  for (std::size_t i = kDwordSize; i > 0; --i) number = number << 8 | value->data[i - 1];
  *out = number;
  return error::kSuccess;
}

}  // namespace

FileRegistry::FileRegistry(std::function<std::string()> path,
                           std::function<void(const std::string&)> report, WallClock& clock)
    : pathSource_(std::move(path)), reporter_(std::move(report)), clock_(clock) {}

std::uint32_t FileRegistry::getDword(const std::u16string& key, const std::u16string& value,
                                     std::uint32_t* out) try {
  MutexLock lock(mutex_);
  const std::u16string question = key + u'\0' + value;
  const FileSignature now = signatureOf(path());
  for (const Answer& answer : answers_) {
    if (answer.length == question.size() && answer.signature == now &&
        std::equal(question.begin(), question.end(), answer.question.begin())) {
      if (answer.result == error::kSuccess) *out = answer.value;
      return answer.result;
    }
  }
  Answer answer;
  const Content current = content(&answer.signature);
  if (current == nullptr) return error::kNotEnoughMemory;
  answer.result = dwordOf(current->find(key, value), &answer.value);
  if (answer.result == error::kSuccess) *out = answer.value;
  if (answer.signature.exists && question.size() <= Answer::kLongest) {
    answer.length = question.size();
    std::copy(question.begin(), question.end(), answer.question.begin());
    answers_[nextAnswer_] = answer;
    nextAnswer_ = (nextAnswer_ + 1) % answers_.size();
  }
  return answer.result;
} catch (const std::exception&) {
  return error::kNotEnoughMemory;
}

std::uint32_t FileRegistry::openKey(const std::u16string& key, RegistryKey* out) try {
  *out = nullptr;
  MutexLock lock(mutex_);
  Content now = content(nullptr);
  if (now == nullptr) return error::kNotEnoughMemory;
  if (!now->hasKey(key)) return error::kFileNotFound;
  if (keys_.empty()) openPath_ = path();
  OpenKey& opened = keys_[lastKey_ + 1];
  opened.path = key;
  opened.baseline = std::move(now);
  *out = reinterpret_cast<RegistryKey>(++lastKey_);
  return error::kSuccess;
} catch (const std::exception&) {
  return error::kNotEnoughMemory;
}

std::uint32_t FileRegistry::queryValue(RegistryKey key, const std::u16string& value,
                                       std::uint32_t* type, void* data, std::uint32_t* size) try {
  MutexLock lock(mutex_);
  OpenKey* open = find(key);
  if (open == nullptr) return error::kInvalidHandle;
  const Content now = content(nullptr);
  if (now == nullptr) return error::kNotEnoughMemory;
  // What is read here may be gone again when the file's writer is done: the reader is then told.
  if (!now->sameSubtree(*open->baseline, open->path)) open->changed = true;
  const RegistryValue* found = now->find(open->path, value);
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
  MutexLock lock(mutex_);
  OpenKey* open = find(key);
  if (open == nullptr) return error::kInvalidHandle;
  ScopedFd pending = duplicateEvent(event);
  if (!pending) return lastError();
  // Watched first, then read: a change in between is an event.
  if (!startWatching()) return error::kNotEnoughMemory;
  open->watched = true;
  const Content now = content(nullptr);
  if (now == nullptr) return error::kNotEnoughMemory;
  open->pending = std::move(pending);
  signalIfChanged(open, now);
  return error::kSuccess;
} catch (const std::exception&) {
  return error::kNotEnoughMemory;
}

void FileRegistry::closeKey(RegistryKey key) {
  std::unique_ptr<FileWatcher> unneeded;  // joined when the lock is released
  MutexLock lock(mutex_);
  keys_.erase(reinterpret_cast<std::uintptr_t>(key));
  const bool watched = std::any_of(keys_.begin(), keys_.end(),
                                   [](const auto& entry) { return entry.second.watched; });
  if (!watched) unneeded = std::move(watcher_);
  if (keys_.empty()) {
    kept_.reset();
    std::string().swap(openPath_);
  }
}

std::string FileRegistry::path() { return keys_.empty() ? pathSource_() : openPath_; }

FileRegistry::Content FileRegistry::content(FileSignature* settled) {
  const std::string file = path();
  if (kept_ != nullptr && signatureOf(file) == keptSignature_) {
    if (settled != nullptr) *settled = keptSignature_;
    return kept_;
  }
  const FileRead read = readWholeFile(file, clock_.now());
  if (!read.problem.empty()) {
    reporter_.report(file + ": cannot be read: " + read.problem);
  }
  if (read.failed) return nullptr;
  ParsedRegistry parsed = parseRegistryFile(read.bytes);
  reportSkipped(file, parsed);
  Content now = std::make_shared<const RegistryContent>(std::move(parsed.content));
  kept_.reset();
  if (read.settled) {
    if (settled != nullptr) *settled = read.signature;
    if (!keys_.empty()) {
      kept_ = now;
      keptSignature_ = read.signature;
    }
  }
  return now;
}

FileRegistry::OpenKey* FileRegistry::find(RegistryKey key) {
  const auto found = keys_.find(reinterpret_cast<std::uintptr_t>(key));
  return found == keys_.end() ? nullptr : &found->second;
}

bool FileRegistry::startWatching() {
  if (watcher_ != nullptr) return true;
  watcher_ = FileWatcher::create(
      openPath_, [this] { onFileChange(); },
      [this](const std::string& problem) { reporter_.report(problem); });
  return watcher_ != nullptr;
}

void FileRegistry::signalIfChanged(OpenKey* key, const Content& now) {
  const bool changed = key->changed || !now->sameSubtree(*key->baseline, key->path);
  key->baseline = now;
  key->changed = false;
  if (!changed) return;
  signalEvent(key->pending.get());
  key->pending.reset();
}

void FileRegistry::onFileChange() {
  MutexLock lock(mutex_);
  Content now;
  try {
    now = content(nullptr);
  } catch (const std::exception& problem) {
    reporter_.report(openPath_ + ": cannot be read: " + problem.what());
  }
  for (auto& [number, key] : keys_) {
    if (!key.pending) continue;
    if (now != nullptr) {
      signalIfChanged(&key, now);
    } else {
      // Nothing to compare: whoever waits looks for himself.
      signalEvent(key.pending.get());
      key.pending.reset();
    }
  }
}

void FileRegistry::reportSkipped(const std::string& file, const ParsedRegistry& parsed) {
  for (const SkippedLine& line : parsed.skipped) {
    reporter_.report(line.identity,
                     file + ":" + std::to_string(line.number) + ": not understood, skipped");
  }
}

std::string registryFilePath() {
  const char* path = std::getenv("ZELTA_REGISTRY");
  return path == nullptr || *path == '\0' ? "/etc/zelta/registry.reg" : path;
}

RegistryApi& systemRegistry() {
  static NeverDestroyed<FileRegistry> registry(registryFilePath, [](const std::string& problem) {
    std::fprintf(stderr, "zelta: %s\n", problem.c_str());
  });
  return registry.get();
}

}  // namespace zelta::platform
