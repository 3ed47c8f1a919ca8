// The file watcher and the reporter by themselves, and the process's own registry.
#include "platform/registry_watch_linux.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/once_reporter.h"
#include "platform/registry_linux.h"
#include "platform/sync.h"
#include "tests/platform/process_resources.h"
#include "tests/support/temp_folder.h"

namespace zelta::platform {
namespace {

namespace fs = std::filesystem;

// Counts a watcher's calls.
class Calls {
 public:
  std::function<void()> counter() {
    return [this] {
      MutexLock lock(mutex_);
      ++count_;
      changed_.notifyAll();
    };
  }
  // Waits for one that has not been waited for.
  void waitForNext() {
    MutexLock lock(mutex_);
    changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return count_ > seen_; });
    seen_ = count_;
  }

 private:
  Mutex mutex_;
  ConditionVariable changed_;
  int count_ ZELTA_GUARDED_BY(mutex_) = 0;
  int seen_ ZELTA_GUARDED_BY(mutex_) = 0;
};

void noProblem(const std::string& problem) { ADD_FAILURE() << problem; }

TEST(FileWatcher, EndsAtOnceWithoutAChangeAndLeavesNothing) {
  const test::TempFolder folder;
  const auto before = test::processResources();
  for (const std::string name : {"file", "no/such/folder/file", ".", "../x", ""}) {
    const auto watcher = FileWatcher::create(
        folder.file(name), [] {}, noProblem);
  }
  EXPECT_EQ(test::processResources(), before);
}

TEST(FileWatcher, EachPartOfThePathThatComesIsNoticed) {
  const test::TempFolder folder;
  Calls calls;
  const auto watcher = FileWatcher::create(folder.file("a/b/c/file"), calls.counter(), noProblem);
  for (const char* part : {"a", "a/b", "a/b/c"}) {
    fs::create_directory(folder.file(part));
    calls.waitForNext();
  }
  std::ofstream(folder.file("a/b/c/file")) << "x";
  calls.waitForNext();
}

TEST(FileWatcher, DotsAndDoubledSlashesInThePathAreFollowed) {
  const test::TempFolder folder;
  fs::create_directories(folder.path() / "a");
  fs::create_directories(folder.path() / "b");
  Calls calls;
  const auto watcher =
      FileWatcher::create(folder.file("a/./..//b/../b/file"), calls.counter(), noProblem);
  fs::create_directory(folder.file("b/file"));
  calls.waitForNext();
}

TEST(FileWatcher, ARelativePathIsFollowedFromTheCurrentFolder) {
  const test::TempFolder folder;
  const fs::path before = fs::current_path();
  fs::current_path(folder.path());
  Calls calls;
  {
    const auto watcher = FileWatcher::create("file", calls.counter(), noProblem);
    fs::current_path(before);
    std::ofstream(folder.file("file")) << "x";
    calls.waitForNext();
  }
}

TEST(FileWatcher, NewAccessRightsAreNoticed) {
  const test::TempFolder folder;
  std::ofstream(folder.file("file")) << "x";
  Calls calls;
  const auto watcher = FileWatcher::create(folder.file("file"), calls.counter(), noProblem);
  fs::permissions(folder.file("file"), fs::perms::owner_read);
  calls.waitForNext();
}

TEST(FileWatcher, MoreEventsThanTheQueueHoldsAreOneChange) {
  const test::TempFolder folder;
  std::ofstream(folder.file("file")) << "x";
  Calls calls;
  Mutex gate;
  const auto watcher = FileWatcher::create(
      folder.file("file"),
      [&, count = calls.counter()] {
        MutexLock lock(gate);
        count();
      },
      noProblem);
  {
    // The watcher is held at its first call while the queue (16384 events by default) runs over
    // with files that do not matter and then with one that does.
    MutexLock lock(gate);
    fs::permissions(folder.file("file"), fs::perms::owner_read);
    const fs::path other = folder.path() / "other";
    for (int i = 0; i < 20000; ++i) {
      std::ofstream(other) << "x";
      fs::remove(other);
    }
    fs::remove(folder.file("file"));
  }
  calls.waitForNext();
  std::ofstream(folder.file("file")) << "y";
  calls.waitForNext();
}

TEST(OnceReporter, TellsEachProblemOnceAndTheLastThatItIsTheLast) {
  std::vector<std::string> told;
  OnceReporter reporter([&](const std::string& problem) { told.push_back(problem); });
  reporter.report("a");
  reporter.report("a");
  reporter.report(7, "line 1");
  reporter.report(7, "line 2");
  EXPECT_EQ(told, (std::vector<std::string>{"a", "line 1"}));
  for (std::size_t i = 0; i < 2 * OnceReporter::kMost; ++i) {
    reporter.report("problem " + std::to_string(i));
  }
  EXPECT_EQ(told.size(), OnceReporter::kMost);
  EXPECT_EQ(told.back(), "problem 61; no more is reported from here on");
}

TEST(SystemRegistry, ItsFileIsTheVariablesOrTheSystems) {
  {
    const test::ScopedVariable variable("ZELTA_REGISTRY", "");
    EXPECT_EQ(registryFilePath(), "/etc/zelta/registry.reg");
  }
  const test::ScopedVariable variable("ZELTA_REGISTRY", "/some/file");
  EXPECT_EQ(registryFilePath(), "/some/file");
}

TEST(SystemRegistry, ItsFileIsLookedUpAnewWhenNoKeyIsOpen) {
  const test::TempFolder folder;
  std::ofstream(folder.file("1")) << "[HKLM\\A]\n\"x\"=dword:1\n";
  std::ofstream(folder.file("2")) << "[HKLM\\A]\n\"x\"=dword:2\n";
  RegistryApi& registry = systemRegistry();
  std::uint32_t value = 0;
  const test::ScopedVariable first("ZELTA_REGISTRY", folder.file("1"));
  EXPECT_EQ(registry.getDword(u"A", u"x", &value), error::kSuccess);
  EXPECT_EQ(value, 1U);
  RegistryKey key = nullptr;
  ASSERT_EQ(registry.openKey(u"A", &key), error::kSuccess);
  const test::ScopedVariable second("ZELTA_REGISTRY", folder.file("2"));
  EXPECT_EQ(registry.getDword(u"A", u"x", &value), error::kSuccess);
  EXPECT_EQ(value, 1U) << "the open key's file";
  registry.closeKey(key);
  EXPECT_EQ(registry.getDword(u"A", u"x", &value), error::kSuccess);
  EXPECT_EQ(value, 2U);
}

TEST(SystemRegistry, ReportsToStandardError) {
  const test::TempFolder folder;
  std::ofstream(folder.file("registry.reg")) << "[HKLM\\A]\nwhat is this\n";
  const test::ScopedVariable variable("ZELTA_REGISTRY", folder.file("registry.reg"));
  std::uint32_t value = 0;
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; ++i) systemRegistry().getDword(u"A", u"x", &value);
  const std::string told = testing::internal::GetCapturedStderr();
  EXPECT_EQ(told, "zelta: " + folder.file("registry.reg") + ":2: not understood, skipped\n");
}

}  // namespace
}  // namespace zelta::platform
