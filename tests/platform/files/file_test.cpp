#include "platform/files/file.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "tests/support/temp_folder.h"

namespace zelta::platform {
namespace {

namespace fs = std::filesystem;

TEST(NativePath, Text_IsTheSystemsPathWithItsOwnSeparators) {
#if defined(_WIN32)
  EXPECT_EQ(nativePath("C:\\ProgramData\\zelta_vsc.txt").native(),
            L"C:\\ProgramData\\zelta_vsc.txt");
  EXPECT_EQ(nativePath("X:\\T\\\\zelta_vsc").native(), L"X:\\T\\\\zelta_vsc");
  EXPECT_EQ(nativePath("C:\\sm\xC3\xB8r\\\xF0\x9F\x98\x80").native(), L"C:\\sm\u00F8r\\\U0001F600");
#else
  EXPECT_EQ(nativePath("/var/log\\Vornhalt\\ZeltaAgent"), "/var/log/Vornhalt/ZeltaAgent");
  EXPECT_EQ(nativePath("/tmp/\\zelta_vsc"), "/tmp//zelta_vsc");
  EXPECT_EQ(nativePath("/sm\xC3\xB8r\\x"), "/sm\xC3\xB8r/x");
#endif
  EXPECT_EQ(nativePath("plain"), "plain");
  EXPECT_EQ(nativePath(""), "");
}

constexpr Readers kReaders = Readers::kOwnerAndGroup;

TEST(NewFile, MissingFile_IsMadeEmptyAndExistingOneLeftAlone) {
  const test::TempFolder folder;
  EXPECT_EQ(makeNewFile(folder.path() / "new", kReaders), NewFile::kMade);
  EXPECT_EQ(fs::file_size(folder.path() / "new"), 0u);
  std::ofstream(folder.path() / "old") << "content";
  EXPECT_EQ(makeNewFile(folder.path() / "old", kReaders), NewFile::kExists);
  EXPECT_EQ(fs::file_size(folder.path() / "old"), 7u);
  EXPECT_EQ(makeNewFile(folder.path() / "missing" / "new", kReaders), NewFile::kFailed);
}

TEST(NewFile, SeveralAtOnce_OneMakesIt) {
  const test::TempFolder folder;
  for (int round = 0; round < 50; ++round) {
    std::atomic<int> made{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        const NewFile result = makeNewFile(folder.path() / std::to_string(round), kReaders);
        if (result == NewFile::kMade) ++made;
        EXPECT_NE(result, NewFile::kFailed);
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(made, 1);
  }
}

}  // namespace
}  // namespace zelta::platform
