// The built module as seen by Windows: its exports, its version resource, its imports.
#include <windows.h>
// windows.h comes first
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <winver.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::UnorderedElementsAre;

HMODULE loadModule() { return LoadLibraryW(std::filesystem::u8path(ZELTA_MODULE).c_str()); }

class ModuleImageTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(module_, nullptr) << GetLastError(); }
  ~ModuleImageTest() override {
    if (module_ != nullptr) FreeLibrary(module_);
  }

  template <typename Object>
  const Object* at(DWORD offset) const {
    return reinterpret_cast<const Object*>(reinterpret_cast<const char*>(module_) + offset);
  }
  DWORD directory(int index) const {
    const auto* headers = at<IMAGE_NT_HEADERS>(at<IMAGE_DOS_HEADER>(0)->e_lfanew);
    return headers->OptionalHeader.DataDirectory[index].VirtualAddress;
  }
  std::vector<std::string> exports() const {
    const auto* table = at<IMAGE_EXPORT_DIRECTORY>(directory(IMAGE_DIRECTORY_ENTRY_EXPORT));
    std::vector<std::string> names;
    for (DWORD i = 0; i < table->NumberOfNames; ++i) {
      names.emplace_back(at<char>(at<DWORD>(table->AddressOfNames)[i]));
    }
    EXPECT_EQ(table->NumberOfFunctions, table->NumberOfNames) << "exported without a name";
    return names;
  }
  std::vector<std::string> importedLibraries() const {
    std::vector<std::string> names;
    for (const auto* entry = at<IMAGE_IMPORT_DESCRIPTOR>(directory(IMAGE_DIRECTORY_ENTRY_IMPORT));
         entry->Name != 0; ++entry) {
      names.emplace_back(at<char>(entry->Name));
    }
    return names;
  }

  const HMODULE module_ = loadModule();
};

TEST_F(ModuleImageTest, ExportsTheFiveNamesAndNothingElse) {
  EXPECT_THAT(exports(),
              UnorderedElementsAre("DllCanUnloadNow", "DllGetClassObject", "DllRegisterServer",
                                   "DllUnregisterServer", "Microsoft_WDF_UMDF_Version"));
}

TEST_F(ModuleImageTest, ExportedVersionIsTheFrameworks) {
  const auto* version = reinterpret_cast<const std::uint32_t*>(
      reinterpret_cast<const void*>(GetProcAddress(module_, "Microsoft_WDF_UMDF_Version")));
  ASSERT_NE(version, nullptr);
  EXPECT_THAT(std::vector<std::uint32_t>(version, version + 3), ElementsAre(1, 11, 0));
}

// The compiler's run-time is linked in: a driver package brings one DLL.
TEST_F(ModuleImageTest, NeedsOnlyWhatEveryWindowsHas) {
  const std::vector<std::string> system = {"ADVAPI32.dll", "KERNEL32.dll", "msvcrt.dll",
                                           "ole32.dll",    "SHELL32.dll",  "WS2_32.dll"};
  EXPECT_THAT(system, IsSupersetOf(importedLibraries()));
  EXPECT_THAT(importedLibraries(), testing::Contains("KERNEL32.dll"));
}

class VersionResourceTest : public ModuleImageTest {
 protected:
  VersionResourceTest() {
    HRSRC found = FindResourceW(module_, MAKEINTRESOURCEW(VS_VERSION_INFO), VS_FILE_INFO);
    if (found == nullptr) return;
    const auto* bytes = static_cast<const char*>(LockResource(LoadResource(module_, found)));
    resource_.assign(bytes, bytes + SizeofResource(module_, found));
  }

  template <typename Object>
  const Object* value(const std::wstring& path) const {
    void* found = nullptr;
    UINT size = 0;
    if (resource_.empty() || !VerQueryValueW(resource_.data(), path.c_str(), &found, &size)) {
      return nullptr;
    }
    return static_cast<const Object*>(found);
  }
  std::wstring text(const std::wstring& name) const {
    const auto* found = value<wchar_t>(L"\\StringFileInfo\\040904b0\\" + name);
    return found == nullptr ? L"none" : found;
  }

  std::vector<char> resource_;
};

TEST_F(VersionResourceTest, SaysWhatTheFileIs) {
  EXPECT_EQ(text(L"CompanyName"), L"Vornhalt");
  EXPECT_EQ(text(L"FileDescription"), L"Zelta Virtual SmartCard Reader driver");
  EXPECT_EQ(text(L"OriginalFilename"), L"zelta_vsc.dll");
  const std::string version = ZELTA_PROJECT_VERSION;
  const std::wstring wide(version.begin(), version.end());
  EXPECT_EQ(text(L"FileVersion"), wide);
  EXPECT_EQ(text(L"ProductVersion"), wide);
}

TEST_F(VersionResourceTest, HasTheProjectsVersionInNumbers) {
  const auto* fixed = value<VS_FIXEDFILEINFO>(L"\\");
  ASSERT_NE(fixed, nullptr);
  EXPECT_EQ(std::to_string(HIWORD(fixed->dwFileVersionMS)) + "." +
                std::to_string(LOWORD(fixed->dwFileVersionMS)) + "." +
                std::to_string(HIWORD(fixed->dwFileVersionLS)),
            ZELTA_PROJECT_VERSION);
  EXPECT_EQ(fixed->dwProductVersionMS, fixed->dwFileVersionMS);
  EXPECT_EQ(fixed->dwProductVersionLS, fixed->dwFileVersionLS);
  EXPECT_EQ(fixed->dwFileType, static_cast<DWORD>(VFT_DLL));
}

}  // namespace
