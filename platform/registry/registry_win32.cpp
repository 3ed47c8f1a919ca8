#include <windows.h>

#include "platform/process/never_destroyed.h"
#include "platform/registry/registry.h"

namespace zelta::platform {

namespace {

const wchar_t* wide(const std::u16string& text) {
  static_assert(sizeof(wchar_t) == sizeof(char16_t));
  return reinterpret_cast<const wchar_t*>(text.c_str());
}

class Win32Registry final : public RegistryApi {
 public:
  std::uint32_t getDword(const std::u16string& key, const std::u16string& value,
                         std::uint32_t* out) override {
    DWORD size = sizeof *out;
    return static_cast<std::uint32_t>(RegGetValueW(HKEY_LOCAL_MACHINE, wide(key), wide(value),
                                                   RRF_RT_REG_DWORD, nullptr, out, &size));
  }

  std::uint32_t openKey(const std::u16string& key, RegistryKey* out) override {
    HKEY opened = nullptr;
    const LSTATUS result = RegOpenKeyExW(HKEY_LOCAL_MACHINE, wide(key), 0, KEY_READ, &opened);
    *out = opened;
    return static_cast<std::uint32_t>(result);
  }

  std::uint32_t queryValue(RegistryKey key, const std::u16string& value, std::uint32_t* type,
                           void* data, std::uint32_t* size) override {
    DWORD valueType = *type;
    DWORD valueSize = *size;
    const LSTATUS result = RegQueryValueExW(static_cast<HKEY>(key), wide(value), nullptr,
                                            &valueType, static_cast<BYTE*>(data), &valueSize);
    *type = valueType;
    *size = valueSize;
    return static_cast<std::uint32_t>(result);
  }

  // One-shot, and ends early when the registering thread does: callers register from the thread
  // that waits.
  std::uint32_t notifyChange(RegistryKey key, EventHandle event) override {
    return static_cast<std::uint32_t>(
        RegNotifyChangeKeyValue(static_cast<HKEY>(key), TRUE,
                                REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET, event, TRUE));
  }

  void closeKey(RegistryKey key) override { RegCloseKey(static_cast<HKEY>(key)); }
};

}  // namespace

RegistryApi& systemRegistry() {
  static NeverDestroyed<Win32Registry> registry;
  return registry.get();
}

}  // namespace zelta::platform
