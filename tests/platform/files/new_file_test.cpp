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

TEST(NewFile, IsMadeEmpty) {
  const test::TempFolder folder;
  EXPECT_EQ(makeNewFile(folder.path() / "new"), NewFile::kMade);
  EXPECT_EQ(fs::file_size(folder.path() / "new"), 0u);
}

TEST(NewFile, FileThatIsThereIsLeftAlone) {
  const test::TempFolder folder;
  std::ofstream(folder.path() / "old") << "content";
  EXPECT_EQ(makeNewFile(folder.path() / "old"), NewFile::kExists);
  EXPECT_EQ(fs::file_size(folder.path() / "old"), 7u);
}

TEST(NewFile, MissingFolderIsAFailure) {
  const test::TempFolder folder;
  EXPECT_EQ(makeNewFile(folder.path() / "missing" / "new"), NewFile::kFailed);
}

TEST(NewFile, OneOfManyMakesIt) {
  const test::TempFolder folder;
  for (int round = 0; round < 50; ++round) {
    std::atomic<int> made{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        const NewFile result = makeNewFile(folder.path() / std::to_string(round));
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
