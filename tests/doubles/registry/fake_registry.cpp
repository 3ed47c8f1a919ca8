#include "tests/doubles/registry/fake_registry.h"

#include <cstring>
#include <utility>

#include "platform/process/error.h"

namespace zelta::test {

using platform::MutexLock;
using platform::RegistryContent;
using platform::RegistryValue;
namespace error = platform::error;

FakeRegistry::FakeRegistry(platform::EventApi& events) : events_(events) {}

void FakeRegistry::createKey(const std::u16string& key) {
  const MutexLock lock(mutex_);
  const RegistryContent before = content_;
  content_.createKey(key);
  signalChanges(before);
}

void FakeRegistry::setDword(const std::u16string& key, const std::u16string& name,
                            std::uint32_t value) {
  setValue(key, name, platform::kRegDword, platform::registryDword(value));
}

void FakeRegistry::setText(const std::u16string& key, const std::u16string& name,
                           const std::u16string& text, std::uint32_t type) {
  setValue(key, name, type, platform::registryText(text));
}

void FakeRegistry::setValue(const std::u16string& key, const std::u16string& name,
                            std::uint32_t type, std::vector<std::uint8_t> data) {
  const MutexLock lock(mutex_);
  const RegistryContent before = content_;
  content_.createKey(key)[platform::foldName(name)] = RegistryValue{type, std::move(data)};
  signalChanges(before);
}

void FakeRegistry::deleteValue(const std::u16string& key, const std::u16string& name) {
  const MutexLock lock(mutex_);
  if (content_.find(key, name) == nullptr) return;
  const RegistryContent before = content_;
  content_.createKey(key).erase(platform::foldName(name));
  signalChanges(before);
}

void FakeRegistry::deleteKey(const std::u16string& key) {
  const MutexLock lock(mutex_);
  const RegistryContent before = content_;
  content_.deleteKey(key);
  signalChanges(before);
}

std::size_t FakeRegistry::openKeys() {
  const MutexLock lock(mutex_);
  return keys_.size();
}

std::uint32_t FakeRegistry::getDword(const std::u16string& key, const std::u16string& value,
                                     std::uint32_t* out) {
  const MutexLock lock(mutex_);
  if (const std::uint32_t code = count(Call::kGetDword)) return code;
  const RegistryValue* found = content_.find(key, value);
  if (found == nullptr) return error::kFileNotFound;
  if (found->type != platform::kRegDword) return error::kUnsupportedType;
  if (found->data.size() != sizeof(*out)) return error::kInvalidData;
  *out = 0;
  for (std::size_t i = found->data.size(); i > 0; --i) *out = *out << 8 | found->data[i - 1];
  return error::kSuccess;
}

std::uint32_t FakeRegistry::openKey(const std::u16string& key, platform::RegistryKey* out) {
  const MutexLock lock(mutex_);
  *out = nullptr;
  if (const std::uint32_t code = count(Call::kOpenKey)) return code;
  if (!content_.hasKey(key)) return error::kFileNotFound;
  keys_[++lastKey_].path = key;
  *out = reinterpret_cast<platform::RegistryKey>(lastKey_);
  return error::kSuccess;
}

std::uint32_t FakeRegistry::queryValue(platform::RegistryKey key, const std::u16string& value,
                                       std::uint32_t* type, void* data, std::uint32_t* size) {
  const MutexLock lock(mutex_);
  if (const std::uint32_t code = count(Call::kQueryValue)) return code;
  const OpenKey* open = find(key);
  if (open == nullptr) return error::kInvalidHandle;
  const RegistryValue* found = content_.find(open->path, value);
  if (found == nullptr) return error::kFileNotFound;
  const std::size_t capacity = *size;
  *size = static_cast<std::uint32_t>(found->data.size());
  if (data != nullptr) {
    if (capacity < found->data.size()) return error::kMoreData;
    if (!found->data.empty()) std::memcpy(data, found->data.data(), found->data.size());
  }
  if (type != nullptr) *type = found->type;
  return error::kSuccess;
}

std::uint32_t FakeRegistry::notifyChange(platform::RegistryKey key, platform::EventHandle event) {
  const MutexLock lock(mutex_);
  if (const std::uint32_t code = count(Call::kNotifyChange)) return code;
  OpenKey* open = find(key);
  if (open == nullptr || event == nullptr) return error::kInvalidHandle;
  open->pending = event;
  if (open->changed) signal(events_, open);
  return error::kSuccess;
}

void FakeRegistry::closeKey(platform::RegistryKey key) {
  const MutexLock lock(mutex_);
  count(Call::kCloseKey);
  keys_.erase(reinterpret_cast<std::uintptr_t>(key));
}

FakeRegistry::OpenKey* FakeRegistry::find(platform::RegistryKey key) {
  const auto found = keys_.find(reinterpret_cast<std::uintptr_t>(key));
  return found == keys_.end() ? nullptr : &found->second;
}

void FakeRegistry::signalChanges(const RegistryContent& before) {
  for (auto& [number, key] : keys_) {
    if (content_.sameSubtree(before, key.path)) continue;
    key.changed = true;
    if (key.pending != nullptr) signal(events_, &key);
  }
}

void FakeRegistry::signal(platform::EventApi& events, OpenKey* key) {
  key->changed = false;
  events.set(std::exchange(key->pending, nullptr));
}

}  // namespace zelta::test
