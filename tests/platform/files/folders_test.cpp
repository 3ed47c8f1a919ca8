// The behaviour of every implementation of the folders: the system's, and the double.
#include "tests/platform/files/folders_test.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/doubles/ports/fake_folders.h"

namespace zelta::platform {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kCapacity = 261;
constexpr char16_t kSeparator = fs::path::preferred_separator;

using Call = std::uint32_t (FolderApi::*)(char16_t*, std::uint32_t);

class FakeFoldersWorld final : public test::FoldersWorld {
 public:
  FakeFoldersWorld() {
    fake_.programDataPath = programData().u16string();
    fake_.temporaryPath = (temporary() / "").u16string();
    fake_.currentPath = current().u16string();
  }
  FolderApi& api() override { return fake_; }

 private:
  test::FakeFolders fake_;
};

std::unique_ptr<test::FoldersWorld> makeFakeFoldersWorld() {
  return std::make_unique<FakeFoldersWorld>();
}

struct Kind {
  const char* name;
  std::unique_ptr<test::FoldersWorld> (*make)();
};

class FoldersTest : public ::testing::TestWithParam<Kind> {
 protected:
  std::u16string text(Call call) {
    char16_t buffer[kCapacity];
    const std::uint32_t length = (folders_.*call)(buffer, kCapacity);
    EXPECT_LT(length, kCapacity);
    EXPECT_EQ(buffer[length], u'\0');
    return {buffer, length};
  }

  const std::unique_ptr<test::FoldersWorld> world_ = GetParam().make();
  FolderApi& folders_ = world_->api();
};

TEST_P(FoldersTest, ProgramData_IsAFolderWithoutATrailingSeparator) {
  char16_t* path = nullptr;
  ASSERT_EQ(folders_.programData(&path), 0);
  const std::u16string text = path;
  folders_.taskMemFree(path);
  folders_.taskMemFree(nullptr);
  EXPECT_EQ(text, world_->programData().u16string());
  EXPECT_TRUE(fs::is_directory(text));
  EXPECT_NE(text.back(), kSeparator);
}

TEST_P(FoldersTest, TemporaryPath_EndsInASeparatorAndTheCurrentDirectoryDoesNot) {
  EXPECT_EQ(text(&FolderApi::tempPath), world_->temporary().u16string() + kSeparator);
  EXPECT_EQ(text(&FolderApi::currentDirectory), world_->current().u16string());
}

TEST_P(FoldersTest, BufferTooSmall_GetsTheSizeNeeded) {
  for (const Call call : {&FolderApi::tempPath, &FolderApi::currentDirectory}) {
    const std::u16string whole = text(call);
    const auto length = static_cast<std::uint32_t>(whole.size());
    char16_t buffer[kCapacity];
    EXPECT_EQ((folders_.*call)(nullptr, 0), length + 1);
    EXPECT_EQ((folders_.*call)(buffer, 2), length + 1);
    EXPECT_EQ((folders_.*call)(buffer, length), length + 1);
    buffer[length + 1] = u'x';
    EXPECT_EQ((folders_.*call)(buffer, length + 1), length);
    EXPECT_EQ(buffer, whole);
    EXPECT_EQ(buffer[length + 1], u'x');
  }
}

INSTANTIATE_TEST_SUITE_P(, FoldersTest,
                         testing::Values(Kind{"System", &test::makeSystemFoldersWorld},
                                         Kind{"Fake", &makeFakeFoldersWorld}),
                         [](const auto& each) { return std::string(each.param.name); });

}  // namespace
}  // namespace zelta::platform
