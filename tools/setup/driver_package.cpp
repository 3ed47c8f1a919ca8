#include <windows.h>
// windows.h comes first
#include <setupapi.h>

#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/process/scoped_handle_win32.h"
#include "tools/setup/windows_error.h"
#include "tools/setup/windows_parts.h"

namespace zelta::setup {

namespace {

namespace fs = std::filesystem;

constexpr wchar_t kInf[] = L"zelta_vsc.inf";
constexpr wchar_t kCatalog[] = L"zelta_vsc.cat";  // the same in every version of the INF

// A value of the INF's section Version; empty if there is none.
std::wstring versionValue(const fs::path& inf, const wchar_t* key) {
  std::array<wchar_t, 256> value{};
  GetPrivateProfileStringW(L"Version", key, L"", value.data(), static_cast<DWORD>(value.size()),
                           inf.c_str());
  return value.data();
}

// Windows renames a stored package's INF to oem<number>.inf. (Wine keeps the name.)
std::vector<fs::path> storedInfs() {
  std::array<wchar_t, MAX_PATH> windows{};
  require(GetSystemWindowsDirectoryW(windows.data(), MAX_PATH) > 0, "cannot find Windows' folder");
  const fs::path folder = fs::path(windows.data()) / L"INF";
  std::vector<fs::path> found;
  for (const wchar_t* pattern : {L"oem*.inf", kInf}) {
    WIN32_FIND_DATAW entry;
    const platform::ScopedFileSearch search(FindFirstFileW((folder / pattern).c_str(), &entry));
    if (!search) continue;
    do {
      const fs::path inf = folder / entry.cFileName;
      if (versionValue(inf, L"CatalogFile") == kCatalog) found.push_back(inf);
    } while (FindNextFileW(search.get(), &entry));
  }
  return found;
}

class DriverPackage final : public Part {
 public:
  explicit DriverPackage(const std::wstring& folder) : inf_(fs::path(folder) / kInf) {}

  Look look() override {
    std::string text;
    for (const fs::path& inf : storedInfs()) {
      if (!text.empty()) text += "; ";
      text += inf.filename().u8string() + ", " + utf8(versionValue(inf, L"DriverVer"));
    }
    if (text.empty()) return {Look::State::kAbsent, "none"};
    return {Look::State::kPresent, text};
  }

  Change add() override {
    std::array<wchar_t, MAX_PATH> stored{};
    const bool isNew = SetupCopyOEMInfW(inf_.c_str(), nullptr, SPOST_PATH, SP_COPY_NOOVERWRITE,
                                        stored.data(), MAX_PATH, nullptr, nullptr) != FALSE;
    require(isNew || GetLastError() == ERROR_FILE_EXISTS, "cannot add " + inf_.u8string());
    made_ = fs::path(stored.data());
    return {isNew, made_.filename().u8string()};
  }

  Change undo() override {
    // If an earlier device uses the package now, Windows refuses and the package stays.
    uninstall(made_, hasReaderDevice() ? 0 : SUOI_FORCEDELETE);
    return {true, made_.filename().u8string()};
  }

  Change remove() override {
    std::string text;
    for (const fs::path& inf : storedInfs()) {
      uninstall(inf, SUOI_FORCEDELETE);
      text += (text.empty() ? "" : ", ") + inf.filename().u8string();
    }
    return {!text.empty(), text};
  }

 private:
  static void uninstall(const fs::path& inf, DWORD flags) {
    require(SetupUninstallOEMInfW(inf.filename().c_str(), flags, nullptr),
            "cannot remove " + inf.filename().u8string());
  }

  const fs::path inf_;
  fs::path made_;  // by the last `add`
};

}  // namespace

std::unique_ptr<Part> makeDriverPackage(const std::wstring& folder) {
  return std::make_unique<DriverPackage>(folder);
}

}  // namespace zelta::setup
