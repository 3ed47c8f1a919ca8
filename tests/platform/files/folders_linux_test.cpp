// The origin of this system's folders, and their guarantees beyond those of others.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/platform/files/folders_test.h"

namespace zelta::test {
namespace {

class SystemFoldersWorld final : public FoldersWorld {
 public:
  platform::FolderApi& api() override { return platform::systemFolders(); }

 private:
  const ScopedVariable programDataVariable_{"ZELTA_PROGRAM_DATA", programData().string()};
  const ScopedVariable temporaryVariable_{"TMPDIR", temporary().string()};
  const ScopedCurrentPath current_{current()};
};

}  // namespace

std::unique_ptr<FoldersWorld> makeSystemFoldersWorld() {
  return std::make_unique<SystemFoldersWorld>();
}

}  // namespace zelta::test

namespace zelta::platform {
namespace {

using test::ScopedVariable;

constexpr std::uint32_t kCapacity = 261;

std::u16string programData() {
  char16_t* path = nullptr;
  EXPECT_EQ(systemFolders().programData(&path), 0);
  std::u16string text = path;
  systemFolders().taskMemFree(path);
  return text;
}

std::u16string tempPath() {
  char16_t buffer[kCapacity];
  const std::uint32_t length = systemFolders().tempPath(buffer, kCapacity);
  EXPECT_LT(length, kCapacity);
  EXPECT_EQ(buffer[length], u'\0');
  return {buffer, length};
}

TEST(FoldersLinux, ProgramData_IsTheVariablesFolderOrTheDefault) {
  const std::pair<std::string, std::u16string> cases[] = {
      {"", u"/var/log"},
      {"/srv/data", u"/srv/data"},
      {"/srv/data/", u"/srv/data"},
      {"/srv/data//", u"/srv/data"},
      {"relative", u"relative"},
      {"/sm\xC3\xB8rrebr\xC3\xB8"
       "d \xF0\x9F\x98\x80",
       u"/sm\u00F8rrebr\u00F8d \U0001F600"},
      {"/broken\xFF", u"/broken\uFFFD"},
  };
  for (const auto& [value, path] : cases) {
    const ScopedVariable variable("ZELTA_PROGRAM_DATA", value);
    EXPECT_EQ(programData(), path);
  }
}

TEST(FoldersLinux, TemporaryPath_EndsInOneSlash) {
  const std::pair<std::string, std::u16string> cases[] = {
      {"", u"/tmp/"},
      {"/var/tmp", u"/var/tmp/"},
      {"/var/tmp/", u"/var/tmp/"},
      {"/var/tmp///", u"/var/tmp/"},
      {"/", u"/"},
  };
  for (const auto& [value, path] : cases) {
    const ScopedVariable variable("TMPDIR", value);
    EXPECT_EQ(tempPath(), path);
  }
}

TEST(FoldersLinux, BufferTooSmall_IsLeftAsItIs) {
  const ScopedVariable variable("TMPDIR", "/abc");
  char16_t buffer[8] = {u'x'};
  EXPECT_EQ(systemFolders().tempPath(buffer, 5), 6U);
  EXPECT_EQ(buffer[0], u'x');
}

TEST(FoldersLinux, CurrentDirectoryThatWasRemoved_IsNone) {
  const test::TempFolder folder;
  const test::ScopedCurrentPath inside(folder.path());
  std::filesystem::remove(folder.path());
  char16_t buffer[kCapacity];
  EXPECT_EQ(systemFolders().currentDirectory(buffer, kCapacity), 0U);
}

}  // namespace
}  // namespace zelta::platform
