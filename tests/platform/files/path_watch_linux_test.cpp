#include "platform/files/path_watch_linux.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/temp_folder.h"

namespace zelta::platform {
namespace {

namespace fs = std::filesystem;

constexpr int kLimit = 30'000;  // milliseconds, so that a lost notice fails the test

bool hasNews(PathWatch& watch) {
  for (;;) {
    pollfd wait{watch.fd(), POLLIN, 0};
    if (poll(&wait, 1, kLimit) <= 0) return false;
    if (watch.takeNews()) return true;
  }
}

void write(const fs::path& path) { std::ofstream(path) << "x"; }

// Renames a new link to `target` over `link`.
void relink(const fs::path& target, const fs::path& link) {
  fs::create_symlink(target, link.string() + ".new");
  fs::rename(link.string() + ".new", link);
}

// One way to change a folder's etc/zelta/file.
struct Way {
  const char* name;
  void (*prepare)(const fs::path& folder, const fs::path& file);
  void (*change)(const fs::path& folder, const fs::path& file);
};

void noFile(const fs::path&, const fs::path& file) { fs::remove(file); }
void noFolder(const fs::path& folder, const fs::path&) { fs::remove_all(folder / "etc"); }
void folderAway(const fs::path& folder, const fs::path&) {
  fs::rename(folder / "etc", folder / "away");
}
// etc/zelta/file -> ../../links/current/data, links/current -> 1
void links(const fs::path& folder, const fs::path& file) {
  fs::create_directories(folder / "links" / "1");
  fs::create_directories(folder / "links" / "2");
  write(folder / "links" / "1" / "data");
  fs::create_symlink("1", folder / "links" / "current");
  relink("../../links/current/data", file);
}
void asIs(const fs::path&, const fs::path&) {}

const Way kWays[] = {
    {"FileWrittenInPlace", asIs, [](const fs::path&, const fs::path& file) { write(file); }},
    {"FileAppendedTo", asIs,
     [](const fs::path&, const fs::path& file) { std::ofstream(file, std::ios::app) << "y"; }},
    {"FileWrittenByAnotherName",
     [](const fs::path& folder, const fs::path& file) {
       fs::create_hard_link(file, folder / "other");
     },
     [](const fs::path& folder, const fs::path&) { write(folder / "other"); }},
    {"FileRenamedOver", asIs,
     [](const fs::path& folder, const fs::path& file) {
       write(folder / "new");
       fs::rename(folder / "new", file);
     }},
    {"FileRemoved", asIs, noFile},
    {"FileCreated", noFile, [](const fs::path&, const fs::path& file) { write(file); }},
    {"FileLinkedIntoPlace", noFile,
     [](const fs::path& folder, const fs::path& file) {
       write(folder / "other");
       fs::create_hard_link(folder / "other", file);
     }},
    {"FileGivenOtherRights", asIs,
     [](const fs::path&, const fs::path& file) { fs::permissions(file, fs::perms::owner_read); }},
    {"FolderRemoved", asIs, noFolder},
    {"FolderCreated", noFolder,
     [](const fs::path& folder, const fs::path&) { fs::create_directory(folder / "etc"); }},
    {"FolderMovedAway", asIs, folderAway},
    {"FolderMovedIntoPlace", folderAway,
     [](const fs::path& folder, const fs::path&) { fs::rename(folder / "away", folder / "etc"); }},
    {"LinksEndWritten", links,
     [](const fs::path& folder, const fs::path&) { write(folder / "links" / "1" / "data"); }},
    {"LinksFolderRelinked", links,
     [](const fs::path& folder, const fs::path&) {
       relink(folder / "links" / "2", folder / "links" / "current");
     }},
    {"LinkReplaced", links, [](const fs::path&, const fs::path& file) { relink("nothing", file); }},
    {"LoopOfLinks", asIs, [](const fs::path&, const fs::path& file) { relink("file", file); }},
};

class ChangeOfAPath : public testing::TestWithParam<Way> {};

TEST_P(ChangeOfAPath, IsNewsAndThePathIsFollowedAfterwards) {
  const test::TempFolder folder;
  const fs::path file = folder.path() / "etc" / "zelta" / "file";
  fs::create_directories(file.parent_path());
  write(file);
  GetParam().prepare(folder.path(), file);
  PathWatch watch({folder.file("etc/./zelta/../../etc//zelta/file"), folder.path().string()});
  EXPECT_FALSE(watch.takeNews());
  GetParam().change(folder.path(), file);
  EXPECT_TRUE(hasNews(watch));
  EXPECT_EQ(watch.problem(), "");
  fs::create_directories(file.parent_path());
  fs::remove(file);
  for (int i = 0; i < 2; ++i) {
    while (watch.takeNews()) continue;
    write(file);  // creates it, then writes it in place
    EXPECT_TRUE(hasNews(watch));
  }
}

INSTANTIATE_TEST_SUITE_P(, ChangeOfAPath, testing::ValuesIn(kWays),
                         [](const auto& each) { return std::string(each.param.name); });

TEST(PathWatch, OtherFilesInTheFolders_AreNoNews) {
  const test::TempFolder folder;
  fs::create_directory(folder.file("a"));
  PathWatch watch({folder.file("a/file")});
  write(folder.file("a/other"));
  write(folder.file("other"));
  EXPECT_FALSE(watch.takeNews());
}

TEST(PathWatch, WriterThatKeepsTheFileOpen_IsSeenUntilItClosesTheFile) {
  const test::TempFolder folder;
  std::ofstream file(folder.file("file"));
  PathWatch watch({folder.file("file")});
  EXPECT_FALSE(watch.isBeingWritten());
  file << "x" << std::flush;
  EXPECT_FALSE(watch.takeNews());
  EXPECT_TRUE(watch.isBeingWritten());
  watch.assumeWritten();
  EXPECT_FALSE(watch.isBeingWritten());
  file << "y" << std::flush;
  EXPECT_FALSE(watch.takeNews());
  file.close();
  EXPECT_TRUE(watch.takeNews());
  EXPECT_FALSE(watch.isBeingWritten());
}

TEST(PathWatch, FolderThatCannotBeWatched_IsNamedWithTheReason) {
  const test::TempFolder folder;
  fs::create_directory_symlink("loop", folder.file("loop"));
  const PathWatch watch({folder.file("loop/file")});
  EXPECT_EQ(watch.problem(),
            folder.file("loop") + ": cannot be watched: Too many levels of symbolic links");
}

TEST(PathWatch, FoldersNoLongerOnThePath_AreNotWatchedAnyMore) {
  const test::TempFolder folder;
  for (const char* name : {"0", "1", "2", "3"}) fs::create_directory(folder.file(name));
  relink("0", folder.file("link"));
  PathWatch watch({folder.file("link/file")});
  const auto watches = [&] {
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(watch.fd()));
    std::size_t count = 0;
    for (std::string line; std::getline(info, line);) count += line.rfind("inotify", 0) == 0;
    return count;
  };
  const std::size_t before = watches();
  ASSERT_GT(before, 0U);
  for (const char* name : {"1", "2", "3"}) {
    relink(name, folder.file("link"));
    EXPECT_TRUE(hasNews(watch));
    EXPECT_EQ(watches(), before);
  }
}

TEST(PathWatch, EventsLostFromAFullQueue_AreNews) {
  const test::TempFolder folder;
  std::size_t queue = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queue;
  ASSERT_GT(queue, 0U);
  write(folder.file("0"));
  write(folder.file("1"));
  PathWatch watch({folder.file("file")});
  // Fills the queue with other files' events, which leaves no room for the watched file's.
  for (std::size_t i = 0; i <= queue; ++i) {
    fs::permissions(folder.file(std::to_string(i % 2)), fs::perms::owner_read);
  }
  write(folder.file("file"));
  EXPECT_TRUE(watch.takeNews());
}

TEST(PathWatch, LinksThatMultiply_AreFollowedUpToTheKernelsLimit) {
  const test::TempFolder folder;
  fs::create_directory(folder.file("0"));
  for (int i = 1; i <= 60; ++i) {
    const std::string before = std::to_string(i - 1);
    fs::create_symlink(before + "/../" + before, folder.file(std::to_string(i)));
  }
  PathWatch watch({folder.file("60")});
  fs::remove(folder.file("60"));
  EXPECT_TRUE(hasNews(watch));
}

}  // namespace
}  // namespace zelta::platform
