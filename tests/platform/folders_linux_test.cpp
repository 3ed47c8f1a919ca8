#include "platform/folders.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/utf.h"
#include "tests/support/temp_folder.h"

namespace zelta::platform {
namespace {

using test::ScopedVariable;

constexpr std::uint32_t kCapacity = 261;

std::u16string programData() {
  char16_t* path = nullptr;
  EXPECT_EQ(systemFolders().programData(&path), 0);
  const std::u16string text = path;
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

TEST(FoldersLinux, ProgramDataIsTheVariablesFolderWithoutATrailingSlash) {
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

TEST(FoldersLinux, FreeingNothingIsAllowed) { systemFolders().taskMemFree(nullptr); }

TEST(FoldersLinux, TheTemporaryPathEndsInOneSlash) {
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

TEST(FoldersLinux, ABufferTooSmallGetsTheSizeNeeded) {
  const ScopedVariable variable("TMPDIR", "/abc");
  char16_t buffer[8] = {u'x', u'x', u'x', u'x', u'x', u'x', u'x', u'x'};
  EXPECT_EQ(systemFolders().tempPath(buffer, 5), 6U);
  EXPECT_EQ(buffer[0], u'x');
  EXPECT_EQ(systemFolders().tempPath(nullptr, 0), 6U);
  EXPECT_EQ(systemFolders().tempPath(buffer, 6), 5U);
  EXPECT_EQ(std::u16string(buffer), u"/abc/");
  EXPECT_EQ(buffer[6], u'x');
}

TEST(FoldersLinux, TheCurrentDirectoryHasNoTrailingSlash) {
  const test::TempFolder folder;
  const std::filesystem::path before = std::filesystem::current_path();
  const std::filesystem::path inside = std::filesystem::canonical(folder.path());
  std::filesystem::current_path(inside);
  char16_t buffer[kCapacity];
  const std::uint32_t length = systemFolders().currentDirectory(buffer, kCapacity);
  EXPECT_EQ(std::u16string(buffer, length), utf16FromUtf8(inside.native()));
  EXPECT_EQ(systemFolders().currentDirectory(buffer, 2), length + 1);

  std::filesystem::remove(inside);
  EXPECT_EQ(systemFolders().currentDirectory(buffer, kCapacity), 0U) << "there is none any more";
  std::filesystem::current_path(before);
}

}  // namespace
}  // namespace zelta::platform
