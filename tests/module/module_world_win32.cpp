#include "tests/module/module_world.h"

// after the framework's names, some of which are macros in here
#include <windows.h>
// windows.h comes first
#include <shlobj.h>

#include <stdexcept>

namespace zelta::test {

namespace fs = std::filesystem;

namespace {

constexpr wchar_t kPolicyKey[] = L"SOFTWARE\\Policies\\Vornhalt\\Zelta\\zelta_admin";
constexpr wchar_t kAgentKey[] = L"SOFTWARE\\Vornhalt\\ZeltaAgent";

fs::path programData() {
  wchar_t* folder = nullptr;
  if (FAILED(SHGetKnownFolderPath(FOLDERID_ProgramData, 0, nullptr, &folder))) {
    throw std::runtime_error("no ProgramData folder");
  }
  fs::path path(folder);
  CoTaskMemFree(folder);
  return path;
}

void setValue(const wchar_t* key, const wchar_t* name, DWORD type, const void* data,
              std::size_t size) {
  if (RegSetKeyValueW(HKEY_LOCAL_MACHINE, key, name, type, data, static_cast<DWORD>(size)) !=
      ERROR_SUCCESS) {
    throw std::runtime_error("the registry takes no value");
  }
}

void removeKeys() {
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Policies\\Vornhalt");
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Vornhalt");
}

}  // namespace

struct ModuleWorld::System {
  const fs::path programData = test::programData();
};

ModuleWorld::ModuleWorld() : system_(std::make_unique<System>()) {
  // Removes the leftovers of an earlier process that did not end properly.
  removeFolder();
  removeKeys();
  fs::create_directories(logFolder());
  setPolicy(kEveryLevel);
}

ModuleWorld::~ModuleWorld() {
  removeFolder();
  removeKeys();
}

fs::path ModuleWorld::logFolder() const {
  return system_->programData / "Vornhalt" / "ZeltaAgent" / "logs";
}

void ModuleWorld::removeFolder() const {
  std::error_code ignored;
  fs::remove_all(system_->programData / "Vornhalt", ignored);
}

bool ModuleWorld::pipeExists(const std::string& pipeName) const {
  constexpr DWORD kShortest = 1;  // millisecond
  return WaitNamedPipeA(pipeName.c_str(), kShortest) || GetLastError() != ERROR_FILE_NOT_FOUND;
}

void ModuleWorld::setPolicy(std::uint32_t eventFilterMode) {
  setValue(kPolicyKey, L"zelta.event_filter_mode", REG_DWORD, &eventFilterMode,
           sizeof eventFilterMode);
}

void ModuleWorld::setRotationTime(const std::string& text) {
  const std::wstring wide(text.begin(), text.end());
  setValue(kAgentKey, L"ZeltaLogRotationTime", REG_SZ, wide.c_str(),
           (wide.size() + 1) * sizeof(wchar_t));
}

}  // namespace zelta::test
