// A registry in memory that a test fills and whose calls fail on command. Watches are signalled as
// in the real one. Any thread may call anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/registry/registry.h"
#include "platform/registry/registry_file.h"
#include "platform/sync/event.h"
#include "tests/support/failing_calls.h"

namespace zelta::test {

enum class RegistryCall { kGetDword, kOpenKey, kQueryValue, kNotifyChange, kCloseKey };

// A failing call returns its code and does nothing else.
class FakeRegistry final : public platform::RegistryApi, public FailingCalls<RegistryCall, 5> {
 public:
  using Call = RegistryCall;

  // `events` (non-owning) signals the watches.
  explicit FakeRegistry(platform::EventApi& events = platform::systemEvents());

  // The content; keys are made as needed. Every change signals the watches that it concerns.
  void createKey(const std::u16string& key);
  void setDword(const std::u16string& key, const std::u16string& name, std::uint32_t value);
  void setText(const std::u16string& key, const std::u16string& name, const std::u16string& text,
               std::uint32_t type = platform::kRegSz);
  void setValue(const std::u16string& key, const std::u16string& name, std::uint32_t type,
                std::vector<std::uint8_t> data);
  void deleteValue(const std::u16string& key, const std::u16string& name);
  void deleteKey(const std::u16string& key);

  std::size_t openKeys();

  std::uint32_t getDword(const std::u16string& key, const std::u16string& value,
                         std::uint32_t* out) override;
  std::uint32_t openKey(const std::u16string& key, platform::RegistryKey* out) override;
  std::uint32_t queryValue(platform::RegistryKey key, const std::u16string& value,
                           std::uint32_t* type, void* data, std::uint32_t* size) override;
  std::uint32_t notifyChange(platform::RegistryKey key, platform::EventHandle event) override;
  void closeKey(platform::RegistryKey key) override;

 private:
  struct OpenKey {
    std::u16string path;
    bool changed = false;  // since the last notification
    platform::EventHandle pending = nullptr;
  };

  OpenKey* find(platform::RegistryKey key) ZELTA_REQUIRES(mutex_);
  // Signals the keys below which anything differs from `before`.
  void signalChanges(const platform::RegistryContent& before) ZELTA_REQUIRES(mutex_);
  static void signal(platform::EventApi& events, OpenKey* key);

  platform::EventApi& events_;
  platform::RegistryContent content_ ZELTA_GUARDED_BY(mutex_);
  std::uintptr_t lastKey_ ZELTA_GUARDED_BY(mutex_) = 0;
  std::map<std::uintptr_t, OpenKey> keys_ ZELTA_GUARDED_BY(mutex_);
};

}  // namespace zelta::test
