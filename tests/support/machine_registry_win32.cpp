#include "tests/support/machine_registry_win32.h"

#include <windows.h>

#include <atomic>
#include <system_error>

#include "platform/registry/registry_file.h"

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

MachineRegistry::MachineRegistry() {
  static std::atomic<int> made{0};
  path_ = L"SOFTWARE\\Zelta Tests\\" + std::to_wstring(GetCurrentProcessId()) + L"-" +
          std::to_wstring(++made);
  HKEY machine = nullptr;
  check(RegOpenKeyExW(HKEY_LOCAL_MACHINE, nullptr, 0, KEY_ALL_ACCESS, &machine), "RegOpenKeyEx");
  machine_ = machine;
  root_ = create(machine, path_.c_str());
  check(RegOverridePredefKey(HKEY_LOCAL_MACHINE, static_cast<HKEY>(root_)), "RegOverridePredefKey");
}

MachineRegistry::~MachineRegistry() {
  const auto machine = static_cast<HKEY>(machine_);
  RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
  RegCloseKey(static_cast<HKEY>(root_));
  RegDeleteTreeW(machine, path_.c_str());
  RegDeleteKeyW(machine, L"SOFTWARE\\Zelta Tests");  // stays where others have a key in it
  RegCloseKey(machine);
}

void MachineRegistry::createKey(const std::u16string& key) {
  RegCloseKey(create(static_cast<HKEY>(root_), wide(key)));
}

void MachineRegistry::setDword(const std::u16string& key, const std::u16string& name,
                               std::uint32_t value) {
  setValue(key, name, REG_DWORD, platform::registryDword(value));
}

void MachineRegistry::setText(const std::u16string& key, const std::u16string& name,
                              const std::u16string& text) {
  setValue(key, name, REG_SZ, platform::registryText(text));
}

void MachineRegistry::setValue(const std::u16string& key, const std::u16string& name,
                               std::uint32_t type, const std::vector<std::uint8_t>& data) {
  HKEY opened = create(static_cast<HKEY>(root_), wide(key));
  const LSTATUS result =
      RegSetValueExW(opened, wide(name), 0, type, data.data(), static_cast<DWORD>(data.size()));
  RegCloseKey(opened);
  check(result, "RegSetValueEx");
}

void MachineRegistry::deleteValue(const std::u16string& key, const std::u16string& name) {
  check(RegDeleteKeyValueW(static_cast<HKEY>(root_), wide(key), wide(name)), "RegDeleteKeyValue");
}

void MachineRegistry::deleteKey(const std::u16string& key) {
  // One change where nothing is below the key.
  if (RegDeleteKeyW(static_cast<HKEY>(root_), wide(key)) == ERROR_SUCCESS) return;
  check(RegDeleteTreeW(static_cast<HKEY>(root_), wide(key)), "RegDeleteTree");
}

}  // namespace zelta::test
