// The file watcher and the reporter by themselves, and the process's own registry.
#include "platform/registry_watch_linux.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
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

TEST(FileWatcher, WhatWasDroppedFromAFullQueueIsNoticed) {
  const test::TempFolder folder;
  const fs::path file = folder.path() / "file";
  std::ofstream(file) << "x";
  Calls calls;
  Calls callsWithoutFile;
  Mutex gate;
  const auto watcher = FileWatcher::create(
      file.string(),
      [&, count = calls.counter(), countWithoutFile = callsWithoutFile.counter()] {
        if (!fs::exists(file)) countWithoutFile();
        count();
        MutexLock lock(gate);
      },
      noProblem);
  std::size_t queue = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queue;
  ASSERT_GT(queue, 0U);
  {
    // The watcher is held in its first call while what does not matter fills the queue, so that
    // there is no room for the one event that does.
    MutexLock lock(gate);
    fs::permissions(file, fs::perms::owner_read);
    calls.waitForNext();
    for (std::size_t i = 0; i <= queue / 2; ++i) {
      fs::create_directory(folder.path() / "other");
      fs::remove(folder.path() / "other");
    }
    fs::remove(file);
  }
  callsWithoutFile.waitForNext();
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

// In a process of its own: what was reported once is not reported again in this one.
TEST(SystemRegistryDeathTest, ReportsToStandardErrorOnce) {
  const test::TempFolder folder;
  std::ofstream(folder.file("registry.reg")) << "[HKLM\\A]\nwhat is this\n";
  const test::ScopedVariable variable("ZELTA_REGISTRY", folder.file("registry.reg"));
  const auto askThrice = [] {
    std::uint32_t value = 0;
    for (int i = 0; i < 3; ++i) systemRegistry().getDword(u"A", u"x", &value);
    std::_Exit(0);
  };
  EXPECT_EXIT(
      askThrice(), testing::ExitedWithCode(0),
      testing::Eq("zelta: " + folder.file("registry.reg") + ":2: not understood, skipped\n"));
}

}  // namespace
}  // namespace zelta::platform
