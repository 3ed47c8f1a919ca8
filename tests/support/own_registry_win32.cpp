#include "tests/support/own_registry.h"

#include <windows.h>

#include <atomic>
#include <system_error>

namespace zelta::test {

namespace {

const wchar_t* wide(const std::u16string& text) {
  return reinterpret_cast<const wchar_t*>(text.c_str());
}

void check(LSTATUS result, const char* call) {
  if (result == ERROR_SUCCESS || result == ERROR_FILE_NOT_FOUND) return;
  throw std::system_error(result, std::system_category(), call);
}

HKEY create(HKEY parent, const wchar_t* path) {
  HKEY key = nullptr;
  check(RegCreateKeyExW(parent, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
        "RegCreateKeyEx");
  return key;
}

}  // namespace

class OwnRegistry::System {
 public:
  System() {
    static std::atomic<int> made{0};
    path_ = L"SOFTWARE\\Zelta Tests\\" + std::to_wstring(GetCurrentProcessId()) + L"-" +
            std::to_wstring(++made);
    check(RegOpenKeyExW(HKEY_LOCAL_MACHINE, nullptr, 0, KEY_ALL_ACCESS, &machine_), "RegOpenKeyEx");
    root = create(machine_, path_.c_str());
    check(RegOverridePredefKey(HKEY_LOCAL_MACHINE, root), "RegOverridePredefKey");
  }
  ~System() {
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    RegCloseKey(root);
    RegDeleteTreeW(machine_, path_.c_str());
    RegDeleteKeyW(machine_, L"SOFTWARE\\Zelta Tests");  // stays if others have a key in it
    RegCloseKey(machine_);
  }

  HKEY root = nullptr;

 private:
  HKEY machine_ = nullptr;  // the real HKEY_LOCAL_MACHINE
  std::wstring path_;       // of the root
};

OwnRegistry::OwnRegistry() : system_(std::make_unique<System>()) {}

OwnRegistry::~OwnRegistry() = default;

void OwnRegistry::createKey(const std::u16string& key) {
  RegCloseKey(create(system_->root, wide(key)));
}

void OwnRegistry::setValue(const std::u16string& key, const std::u16string& name,
                           std::uint32_t type, const std::vector<std::uint8_t>& data) {
  HKEY opened = create(system_->root, wide(key));
  const LSTATUS result =
      RegSetValueExW(opened, wide(name), 0, type, data.data(), static_cast<DWORD>(data.size()));
  RegCloseKey(opened);
  check(result, "RegSetValueEx");
}

void OwnRegistry::deleteKey(const std::u16string& key) {
  // One change if nothing is below the key.
  if (RegDeleteKeyW(system_->root, wide(key)) == ERROR_SUCCESS) return;
  check(RegDeleteTreeW(system_->root, wide(key)), "RegDeleteTree");
}

void OwnRegistry::deleteValue(const std::u16string& key, const std::u16string& name) {
  check(RegDeleteKeyValueW(system_->root, wide(key), wide(name)), "RegDeleteKeyValue");
}

}  // namespace zelta::test
