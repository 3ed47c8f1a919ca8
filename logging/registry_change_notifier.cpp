#include "logging/registry_change_notifier.h"

#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <utility>

#include "platform/files/utf.h"
#include "platform/process/error.h"
#include "platform/process/ports.h"

namespace zelta {

namespace {

using logging::kOwnErrorCode;
using logging::logErrorOrLose;
using platform::ports;

constexpr std::size_t kValueBufferSize = 512;  // bytes

// UTF-16LE up to the first zero unit.
std::string textOf(const std::array<unsigned char, kValueBufferSize>& bytes) {
  std::u16string text;
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    const auto unit = static_cast<char16_t>(bytes[i] | bytes[i + 1] << 8);
    if (unit == 0) break;
    text.push_back(unit);
  }
  return platform::utf8FromUtf16(text);
}

}  // namespace

void RegistryChangeNotifier::KeyCloser::operator()(void* key) const {
  const std::uint32_t error = platform::lastError();
  ports().registry->closeKey(key);
  platform::setLastError(error);
}

void RegistryChangeNotifier::EventCloser::operator()(void* event) const {
  const std::uint32_t error = platform::lastError();
  ports().events->close(event);
  platform::setLastError(error);
}

RegistryChangeNotifier::RegistryChangeNotifier(std::string keyPath, std::string valueName,
                                               Callback callback, logging::LoggerBase* logger)
    : keyPath_(std::move(keyPath)),
      valueName_(std::move(valueName)),
      callback_(std::move(callback)),
      logger_(logger) {
  checkArguments();
  openKeyAndEvents();
  callback_(readValue());
  watchThread_ = std::thread(&RegistryChangeNotifier::watch, this);
}

RegistryChangeNotifier::~RegistryChangeNotifier() {
  try {
    stopRequested_ = true;
    if (!ports().events->set(stopEvent_.get())) {
      const std::uint32_t error = platform::lastError();
      logErrorOrLose(*logger_, error, [&] {
        return fmt::format("Failed to set event to stop thread: {}\\{}", keyPath_, valueName_);
      });
    }
    watchThread_.join();
    stopEvent_.reset();
    changeEvent_.reset();
    keyHandle_.reset();
  } catch (const std::exception& error) {
    logErrorOrLose(*logger_, kOwnErrorCode, [&] {
      return fmt::format("Unexpected error occurred during thread cleanup: {}", error.what());
    });
  }
}

void RegistryChangeNotifier::checkArguments() const {
  if (keyPath_.empty()) {
    throw std::invalid_argument(fmt::format("Empty registry key provided: {}", keyPath_));
  }
  if (valueName_.empty()) {
    throw std::invalid_argument(fmt::format("Empty registry value name provided: {}", keyPath_));
  }
  if (!callback_) {
    throw std::invalid_argument(
        fmt::format("Null update callback provided: {}\\{}", keyPath_, valueName_));
  }
  if (logger_ == nullptr) {
    throw std::invalid_argument(fmt::format("Null logger provided: {}\\{}", keyPath_, valueName_));
  }
}

void RegistryChangeNotifier::openKeyAndEvents() {
  platform::RegistryKey key = nullptr;
  if (ports().registry->openKey(platform::utf16FromUtf8(keyPath_), &key) !=
      platform::error::kSuccess) {
    throw std::runtime_error(fmt::format("Failed to open registry key: {}", keyPath_));
  }
  keyHandle_.reset(key);
  changeEvent_.reset(ports().events->create());
  if (changeEvent_ == nullptr) {
    throw std::runtime_error(
        fmt::format("Failed to create an event object for receiving change notifications on "
                    "registry key: {}",
                    keyPath_));
  }
  stopEvent_.reset(ports().events->create());
  if (stopEvent_ == nullptr) {
    throw std::runtime_error(fmt::format(
        "Failed to create an event object for stopping thread: {}\\{}", keyPath_, valueName_));
  }
}

std::string RegistryChangeNotifier::readValue() const {
  std::array<unsigned char, kValueBufferSize> data{};
  std::uint32_t type = platform::kRegSz;
  std::uint32_t size = kValueBufferSize;
  const std::uint32_t result = ports().registry->queryValue(
      keyHandle_.get(), platform::utf16FromUtf8(valueName_), &type, data.data(), &size);
  if (result != platform::error::kSuccess) {
    throw std::runtime_error(
        fmt::format("Failed to query ({}) registry value: {}", result, valueName_));
  }
  if (type != platform::kRegSz && type != platform::kRegExpandSz) {
    throw std::runtime_error(
        fmt::format("Unexpected value type \"{}\" from registry value: {}", type, valueName_));
  }
  if (size == 0) {
    throw std::runtime_error(
        fmt::format("Unexpected value size of \"{}\" from registry value: {}", size, valueName_));
  }
  return textOf(data);
}

void RegistryChangeNotifier::watch() noexcept {
  const std::array<platform::EventHandle, 2> events = {stopEvent_.get(), changeEvent_.get()};
  while (!stopRequested_) {
    if (!subscribe()) continue;
    switch (ports().events->waitAny(events.data(), events.size())) {
      case 0:
        return;
      case 1:
        deliver();
        break;
      default: {
        const std::uint32_t error = platform::lastError();
        logErrorOrLose(*logger_, error, [&] {
          return fmt::format("Failed to wait for event: {}\\{}", keyPath_, valueName_);
        });
      }
    }
  }
}

bool RegistryChangeNotifier::subscribe() noexcept {
  const std::uint32_t result = ports().registry->notifyChange(keyHandle_.get(), changeEvent_.get());
  if (result == platform::error::kSuccess) return true;
  logErrorOrLose(*logger_, result, [&] {
    return fmt::format("Failed to subscribe to change notification on registry key: {}", keyPath_);
  });
  return false;
}

void RegistryChangeNotifier::deliver() noexcept {
  try {
    callback_(readValue());
  } catch (const std::exception& error) {
    logErrorOrLose(*logger_, kOwnErrorCode, [&] { return std::string(error.what()); });
  }
}

}  // namespace zelta
