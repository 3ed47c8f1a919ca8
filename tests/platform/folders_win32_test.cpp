#include <windows.h>
// windows.h comes first
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/folders.h"
#include "tests/support/temp_folder.h"

namespace zelta::platform {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kCapacity = 261;

fs::path programData() {
  char16_t* path = nullptr;
  EXPECT_EQ(systemFolders().programData(&path), 0);
  const fs::path folder = std::u16string(path);
  systemFolders().taskMemFree(path);
  return folder;
}

// Sets the variable that the temporary path is taken from; the C library's own copy would not do.
class ScopedTemporaryPath {
 public:
  explicit ScopedTemporaryPath(const fs::path& path) {
    GetEnvironmentVariableW(L"TMP", before_, kCapacity);
    SetEnvironmentVariableW(L"TMP", path.c_str());
  }
  ~ScopedTemporaryPath() { SetEnvironmentVariableW(L"TMP", before_); }
  ScopedTemporaryPath(const ScopedTemporaryPath&) = delete;
  ScopedTemporaryPath& operator=(const ScopedTemporaryPath&) = delete;

 private:
  wchar_t before_[kCapacity] = L"";
};

TEST(FoldersWin32, ProgramDataIsAFolderWithoutATrailingBackslash) {
  wchar_t expected[kCapacity] = L"";
  ASSERT_NE(GetEnvironmentVariableW(L"ProgramData", expected, kCapacity), 0u);
  EXPECT_EQ(programData().native(), expected);
  EXPECT_TRUE(fs::is_directory(programData()));
  EXPECT_NE(programData().native().back(), L'\\');
}

TEST(FoldersWin32, FreeingNothingIsAllowed) { systemFolders().taskMemFree(nullptr); }

TEST(FoldersWin32, TheTemporaryPathEndsInOneBackslash) {
  const test::TempFolder folder;
  const ScopedTemporaryPath variable(folder.path());
  char16_t buffer[kCapacity];
  const std::uint32_t length = systemFolders().tempPath(buffer, kCapacity);
  ASSERT_LT(length, kCapacity);
  EXPECT_EQ(buffer[length], u'\0');
  EXPECT_EQ(fs::path(std::u16string(buffer)).native(), folder.path().native() + L"\\");
}

TEST(FoldersWin32, ABufferTooSmallGetsTheSizeNeeded) {
  const test::TempFolder folder;
  const ScopedTemporaryPath variable(folder.path());
  char16_t buffer[kCapacity];
  const std::uint32_t length = systemFolders().tempPath(buffer, kCapacity);
  EXPECT_EQ(systemFolders().tempPath(buffer, length), length + 1);
  EXPECT_EQ(systemFolders().tempPath(buffer, length + 1), length);
}

TEST(FoldersWin32, TheCurrentDirectoryHasNoTrailingBackslash) {
  const fs::path before = fs::current_path();
  {
    const test::TempFolder folder;
    fs::current_path(folder.path());
    char16_t buffer[kCapacity];
    const std::uint32_t length = systemFolders().currentDirectory(buffer, kCapacity);
    EXPECT_EQ(fs::path(std::u16string(buffer, length)), folder.path());
    EXPECT_EQ(systemFolders().currentDirectory(buffer, 2), length + 1);
    fs::current_path(before);
  }
}

}  // namespace
}  // namespace zelta::platform
