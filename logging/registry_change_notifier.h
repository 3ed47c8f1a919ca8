// Watches one text value of the machine's registry.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "logging/logger_base.h"

namespace zelta {

// Hands the value's text to a callback: once on the constructing thread, and then on its own thread
// after every change at or below the key, which may leave the text unchanged. It takes no lock; the
// callback guards what it changes. The callback must not destroy the notifier.
//
// Failures of the thread are Error records in the given logger; the thread goes on. If subscribing
// to changes keeps failing, it tries again without a pause.
class RegistryChangeNotifier {
 public:
  // UTF-8, without a terminator; environment references are not expanded.
  using Callback = std::function<void(const std::string& text)>;

  // `keyPath` is below HKEY_LOCAL_MACHINE. `logger` is not owned and must outlive this object
  // (it may belong to the callback). Throws `std::invalid_argument` for an empty argument and
  // `std::runtime_error` if the key cannot be opened or the value cannot be read.
  //
  // Intentional: it reads, calls back, and only then begins to watch. A change in between is seen
  // with the next change, or by the next notifier. The thread itself must begin the watch, because
  // Windows drops it when that thread ends.
  RegistryChangeNotifier(std::string keyPath, std::string valueName, Callback callback,
                         logging::LoggerBase* logger);
  // Ends the thread, at once if it waits.
  ~RegistryChangeNotifier();
  RegistryChangeNotifier(const RegistryChangeNotifier&) = delete;
  RegistryChangeNotifier& operator=(const RegistryChangeNotifier&) = delete;

 private:
  struct KeyCloser {
    void operator()(void* key) const;
  };
  struct EventCloser {
    void operator()(void* event) const;
  };
  using ScopedKey = std::unique_ptr<void, KeyCloser>;
  using ScopedEvent = std::unique_ptr<void, EventCloser>;

  void checkArguments() const;
  void openKeyAndEvents();
  std::string readValue() const;
  void watch() noexcept;
  bool subscribe() noexcept;
  void deliver() noexcept;

  const std::string keyPath_;
  const std::string valueName_;
  const Callback callback_;
  logging::LoggerBase* const logger_;  // not owned
  ScopedKey keyHandle_;
  ScopedEvent changeEvent_;
  ScopedEvent stopEvent_;
  std::thread watchThread_;
  // Set before `stopEvent_`, for a thread that never gets as far as waiting for that.
  std::atomic<bool> stopRequested_{false};
};

}  // namespace zelta
