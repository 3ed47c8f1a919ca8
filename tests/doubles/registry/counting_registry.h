// Counts calls of the system's registry. Replaces it while this object lives, and must outlive all
// readers of the registry. Any thread may wait.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/sync/sync.h"
#include "tests/support/scoped_port.h"

namespace zelta::test {

class CountingRegistry final : public platform::RegistryApi {
 public:
  // Waits until `more` further reads of numbers have begun.
  void awaitLooks(std::size_t more) {
    platform::MutexLock lock(mutex_);
    const std::size_t wanted = looks_ + more;
    counted_.wait(lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return looks_ >= wanted; });
  }
  // Waits until `count` notifications in all have been requested and are in force.
  void awaitNotifications(std::size_t count) {
    platform::MutexLock lock(mutex_);
    counted_.wait(lock, [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return notifications_ >= count; });
  }

  std::uint32_t getDword(const std::u16string& key, const std::u16string& value,
                         std::uint32_t* out) override {
    count(&CountingRegistry::looks_);
    return real_.getDword(key, value, out);
  }
  std::uint32_t openKey(const std::u16string& key, platform::RegistryKey* out) override {
    return real_.openKey(key, out);
  }
  std::uint32_t queryValue(platform::RegistryKey key, const std::u16string& value,
                           std::uint32_t* type, void* data, std::uint32_t* size) override {
    return real_.queryValue(key, value, type, data, size);
  }
  std::uint32_t notifyChange(platform::RegistryKey key, platform::EventHandle event) override {
    const std::uint32_t result = real_.notifyChange(key, event);
    count(&CountingRegistry::notifications_);
    return result;
  }
  void closeKey(platform::RegistryKey key) override { real_.closeKey(key); }

 private:
  void count(std::size_t CountingRegistry::*counter) {
    {
      const platform::MutexLock lock(mutex_);
      ++(this->*counter);
    }
    counted_.notifyAll();
  }

  platform::RegistryApi& real_ = *platform::ports().registry;
  platform::Mutex mutex_;
  platform::ConditionVariable counted_;
  std::size_t looks_ = 0;  // guarded by the mutex, like the next
  std::size_t notifications_ = 0;
  const ScopedPort inPlace_{&platform::Ports::registry, *this};
};

}  // namespace zelta::test
