// The registry file while it is read, watched and changed at the same time.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/error.h"
#include "platform/registry_linux.h"
#include "tests/platform/process_resources.h"
#include "tests/support/temp_folder.h"

namespace zelta::platform {
namespace {

namespace fs = std::filesystem;

constexpr int kChanges = 1000;

std::string content(int number) {
  return "Windows Registry Editor Version 5.00\n\n[HKLM\\A]\n\"x\"=\"" + std::to_string(number) +
         "\"\n";
}

void writeInPlace(const fs::path& file, int number) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << content(number);
}

void rename(const fs::path& file, int number) {
  const fs::path fresh = file.string() + ".new";
  std::ofstream(fresh, std::ios::binary) << content(number);
  fs::rename(fresh, file);
}

void removeAndWrite(const fs::path& file, int number) {
  fs::remove(file);
  writeInPlace(file, number);
}

void removeFolderAndWrite(const fs::path& file, int number) {
  fs::remove_all(file.parent_path());
  fs::create_directories(file.parent_path());
  writeInPlace(file, number);
}

struct Manner {
  const char* name;
  void (*change)(const fs::path&, int);
};

class RegistryRace : public testing::TestWithParam<Manner> {
 protected:
  RegistryRace()
      : file_(folder_.path() / "zelta" / "registry.reg"),
        registry_([this] { return file_.string(); }, [](const std::string&) {}) {
    fs::create_directories(file_.parent_path());
    writeInPlace(file_, 0);
  }

  // The text of the value; empty where it is not there (while the file is being written).
  std::u16string text(RegistryKey key) {
    std::uint32_t type = 0;
    char16_t buffer[64] = {};
    std::uint32_t size = sizeof(buffer);
    if (registry_.queryValue(key, u"x", &type, buffer, &size) != error::kSuccess) return {};
    return buffer;
  }

  // Follows the value until it is the last one.
  void follow() {
    RegistryKey key = nullptr;
    // While the folder is away there is no key to open; the root always is.
    ASSERT_EQ(registry_.openKey(u"", &key), error::kSuccess);
    RegistryKey watched = nullptr;
    const EventHandle changed = systemEvents().create();
    while (registry_.openKey(u"A", &watched) != error::kSuccess) {
      ASSERT_EQ(registry_.notifyChange(key, changed), error::kSuccess);
      ASSERT_EQ(systemEvents().waitAny(&changed, 1), 0U);
    }
    registry_.closeKey(key);
    const std::u16string last = u"1000";
    while (text(watched) != last) {
      ASSERT_EQ(registry_.notifyChange(watched, changed), error::kSuccess);
      ASSERT_EQ(systemEvents().waitAny(&changed, 1), 0U);
    }
    registry_.closeKey(watched);
    systemEvents().close(changed);
  }

  test::TempFolder folder_;
  fs::path file_;
  FileRegistry registry_;
};

TEST_P(RegistryRace, TheLastOfAThousandChangesIsAlwaysSeen) {
  const auto before = test::processResources();
  {
    std::vector<std::thread> followers;
    for (int i = 0; i < 3; ++i) followers.emplace_back([this] { follow(); });
    for (int i = 1; i <= kChanges; ++i) GetParam().change(file_, i);
    for (std::thread& follower : followers) follower.join();
  }
  EXPECT_EQ(test::processResources(), before);
}

TEST_P(RegistryRace, ValuesAreWholeOrMissing) {
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      RegistryKey root = nullptr;
      if (registry_.openKey(u"", &root) != error::kSuccess) ++wrong;
      while (!stop) {
        std::uint32_t number = 0;
        const std::uint32_t result = registry_.getDword(u"A", u"x", &number);
        if (result != error::kUnsupportedType && result != error::kFileNotFound) ++wrong;
        RegistryKey key = nullptr;
        if (registry_.openKey(u"A", &key) != error::kSuccess) continue;
        for (const char16_t unit : text(key)) wrong += unit < u'0' || unit > u'9' ? 1 : 0;
        registry_.closeKey(key);
      }
      registry_.closeKey(root);
    });
  }
  for (int i = 1; i <= kChanges / 4; ++i) GetParam().change(file_, i);
  stop = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
}

INSTANTIATE_TEST_SUITE_P(, RegistryRace,
                         testing::Values(Manner{"InPlace", writeInPlace}, Manner{"Renamed", rename},
                                         Manner{"RemovedAndWritten", removeAndWrite},
                                         Manner{"FolderRemovedAndMade", removeFolderAndWrite}),
                         [](const auto& each) { return std::string(each.param.name); });

TEST(RegistryRaceOfKeys, WatchersComeAndGoWithTheirKeys) {
  const test::TempFolder folder;
  const fs::path file = folder.path() / "registry.reg";
  writeInPlace(file, 0);
  FileRegistry registry([&] { return file.string(); }, [](const std::string&) {});
  const auto before = test::processResources();
  std::vector<std::thread> users;
  for (int i = 0; i < 3; ++i) {
    users.emplace_back([&] {
      const EventHandle changed = systemEvents().create();
      for (int round = 0; round < 60; ++round) {
        RegistryKey key = nullptr;
        ASSERT_EQ(registry.openKey(u"", &key), error::kSuccess);
        ASSERT_EQ(registry.notifyChange(key, changed), error::kSuccess);
        registry.closeKey(key);
      }
      systemEvents().close(changed);
    });
  }
  for (int i = 0; i < 60; ++i) rename(file, i);
  for (std::thread& user : users) user.join();
  EXPECT_EQ(test::processResources(), before);
}

// A clock that runs ahead makes every file an old one.
class LateClock final : public WallClock {
 public:
  std::int64_t now() override {
    constexpr std::int64_t hour = std::int64_t{3600} * 10'000'000;
    return systemWallClock().now() + hour;
  }
  bool waitUntil(ConditionVariable&, MutexLock&, std::int64_t,
                 const std::function<bool()>&) override {
    ADD_FAILURE() << "nobody waits on this clock";
    return false;
  }
};

TEST(RegistryReading, AnOldFileIsNotReadForEveryQuestion) {
  const test::TempFolder folder;
  const fs::path file = folder.path() / "registry.reg";
  std::ofstream(file) << "[HKLM\\A]\n\"x\"=dword:1\n\"text\"=\"t\"\n";
  LateClock clock;
  FileRegistry registry([&] { return file.string(); }, [](const std::string&) {}, clock);
  std::uint32_t value = 0;
  const auto askAll = [&](std::uint32_t wanted) {
    ASSERT_EQ(registry.getDword(u"A", u"x", &value), error::kSuccess);
    ASSERT_EQ(value, wanted);
    ASSERT_EQ(registry.getDword(u"A", u"gone", &value), error::kFileNotFound);
    ASSERT_EQ(registry.getDword(u"A", u"text", &value), error::kUnsupportedType);
    ASSERT_EQ(value, wanted);
  };
  askAll(1);

  const ScopedFd spy(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  ASSERT_GE(inotify_add_watch(spy.get(), file.c_str(), IN_OPEN), 0);
  char event[256];
  for (int i = 0; i < 10; ++i) askAll(1);
  EXPECT_EQ(read(spy.get(), event, sizeof(event)), -1) << "the file was opened";

  rename(file, 5);  // another file
  EXPECT_EQ(registry.getDword(u"A", u"x", &value), error::kUnsupportedType);
  std::ofstream(file) << "[HKLM\\A]\n\"x\"=dword:00002\n";  // the same one, of another size
  EXPECT_EQ(registry.getDword(u"A", u"x", &value), error::kSuccess);
  EXPECT_EQ(value, 2U);
  fs::remove(file);
  EXPECT_EQ(registry.getDword(u"A", u"x", &value), error::kFileNotFound);
}

TEST(RegistryReading, AnOldFileIsNotReadForEveryValueOfAnOpenKey) {
  const test::TempFolder folder;
  const fs::path file = folder.path() / "registry.reg";
  std::ofstream(file) << "[HKLM\\A]\n\"x\"=dword:1\n";
  LateClock clock;
  FileRegistry registry([&] { return file.string(); }, [](const std::string&) {}, clock);
  RegistryKey key = nullptr;
  ASSERT_EQ(registry.openKey(u"A", &key), error::kSuccess);
  std::uint32_t type = 0;
  std::uint32_t value = 0;
  std::uint32_t size = sizeof(value);
  ASSERT_EQ(registry.queryValue(key, u"x", &type, &value, &size), error::kSuccess);

  const ScopedFd spy(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  ASSERT_GE(inotify_add_watch(spy.get(), file.c_str(), IN_OPEN), 0);
  char event[256];
  ASSERT_EQ(registry.queryValue(key, u"x", &type, &value, &size), error::kSuccess);
  EXPECT_EQ(read(spy.get(), event, sizeof(event)), -1) << "the file was opened";

  std::ofstream(file) << "[HKLM\\A]\n\"x\"=dword:00002\n";
  ASSERT_EQ(registry.queryValue(key, u"x", &type, &value, &size), error::kSuccess);
  EXPECT_EQ(value, 2U);
  registry.closeKey(key);
}

TEST(RegistryReading, AYoungFileIsReadForEveryQuestion) {
  const test::TempFolder folder;
  const fs::path file = folder.path() / "registry.reg";
  FileRegistry registry([&] { return file.string(); }, [](const std::string&) {});
  std::uint32_t value = 0;
  // In place, of the same size, faster than the time stamps' step.
  for (int i = 0; i < 200; ++i) {
    std::ofstream(file) << "[HKLM\\A]\n\"x\"=dword:" << i % 10 << "\n";
    ASSERT_EQ(registry.getDword(u"A", u"x", &value), error::kSuccess);
    ASSERT_EQ(value, static_cast<std::uint32_t>(i % 10));
  }
}

}  // namespace
}  // namespace zelta::platform
