#include <windows.h>
// windows.h comes first
#include <string>
#include <vector>

#include "platform/process/scoped_handle_win32.h"
#include "tools/setup/windows_error.h"
#include "tools/setup/windows_parts.h"

namespace zelta::setup {

namespace {

struct Setting {
  const wchar_t* key;  // of HKEY_LOCAL_MACHINE
  const wchar_t* name;
  DWORD type;
  const wchar_t* text;  // of a REG_SZ
  DWORD number;         // of a REG_DWORD
};

// packaging/windows/zelta_vsc.inf.in has them as well.
constexpr Setting kSettings[] = {
    {L"SOFTWARE\\Vornhalt\\ZeltaAgent", L"ZeltaLogRotationTime", REG_SZ, L"60", 0},
    {L"SOFTWARE\\Policies\\Vornhalt\\Zelta\\zelta_admin_defaults", L"zelta.event_filter_mode",
     REG_DWORD, nullptr, 2},
};
// Further values that the administrator may have set.
constexpr Setting kPolicy = {L"SOFTWARE\\Policies\\Vornhalt\\Zelta\\zelta_admin",
                             L"zelta.event_filter_mode", REG_DWORD, nullptr, 0};

std::string nameOf(const Setting& setting) {
  return utf8(L"HKLM\\" + std::wstring(setting.key) + L"\\" + setting.name);
}

void check(LSTATUS result, const std::string& what) {
  if (result != ERROR_SUCCESS) throw WindowsError(what, static_cast<DWORD>(result));
}

bool isThere(const Setting& setting) {
  return RegGetValueW(HKEY_LOCAL_MACHINE, setting.key, setting.name, RRF_RT_ANY, nullptr, nullptr,
                      nullptr) == ERROR_SUCCESS;
}

void write(const Setting& setting) {
  const bool isText = setting.type == REG_SZ;
  const void* data = isText ? static_cast<const void*>(setting.text) : &setting.number;
  const std::size_t size =
      isText ? (std::wstring(setting.text).size() + 1) * sizeof(wchar_t) : sizeof(setting.number);
  check(RegSetKeyValueW(HKEY_LOCAL_MACHINE, setting.key, setting.name, setting.type, data,
                        static_cast<DWORD>(size)),
        "cannot write " + nameOf(setting));
}

// Removes the value, and the keys above it that are empty then. False if there was no value.
bool erase(const Setting& setting) {
  const LSTATUS result = RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, setting.key, setting.name);
  const bool isGone = result == ERROR_FILE_NOT_FOUND || result == ERROR_PATH_NOT_FOUND;
  if (!isGone) check(result, "cannot delete " + nameOf(setting));
  std::wstring key = setting.key;
  for (auto end = key.size(); key.find(L"Vornhalt") < end; end = key.rfind(L'\\')) {
    key.resize(end);
    DWORD keys = 0;
    DWORD values = 0;
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS) {
      continue;
    }
    platform::ScopedRegistryKey above(opened);
    RegQueryInfoKeyW(above.get(), nullptr, nullptr, nullptr, &keys, nullptr, nullptr, &values,
                     nullptr, nullptr, nullptr, nullptr);
    above.reset();
    if (keys + values > 0) break;
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, key.c_str());
  }
  return !isGone;
}

class Settings final : public Part {
 public:
  Look look() override {
    for (const Setting& setting : kSettings) {
      if (!isThere(setting)) return {Look::State::kAbsent, "no " + nameOf(setting)};
    }
    return {Look::State::kPresent, "all there"};
  }

  Change add() override {
    made_.clear();
    try {
      for (const Setting& setting : kSettings) {
        if (isThere(setting)) continue;
        write(setting);
        made_.push_back(&setting);
      }
    } catch (const WindowsError&) {
      undo();
      throw;
    }
    return {!made_.empty(), {}};
  }

  Change undo() override {
    for (const Setting* setting : made_) erase(*setting);
    made_.clear();
    return {true, {}};
  }

  Change remove() override {
    bool isChanged = erase(kPolicy);
    for (const Setting& setting : kSettings) isChanged = erase(setting) || isChanged;
    return {isChanged, {}};
  }

 private:
  std::vector<const Setting*> made_;  // by the last `add`
};

}  // namespace

std::unique_ptr<Part> makeSettings() { return std::make_unique<Settings>(); }

}  // namespace zelta::setup
