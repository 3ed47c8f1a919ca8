// The registry of a file: how it is read, reported on and watched. path_watch_linux_test.cpp tests
// the ways in which a file can change.
#include "platform/registry/registry_linux.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/files/scoped_fd_linux.h"
#include "platform/process/error.h"
#include "tests/platform/descriptor_shortage_linux.h"
#include "tests/support/process_state.h"
#include "tests/support/temp_folder.h"

namespace zelta::platform {
namespace {

namespace fs = std::filesystem;
using Problems = std::vector<std::string>;

std::string content(std::uint32_t number) {
  char digits[9];
  (void)std::snprintf(digits, sizeof(digits), "%08x", number);
  return std::string("[HKLM\\A]\n\"x\"=dword:") + digits + "\n[HKLM\\B]\n";
}

void write(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

struct Resources {
  std::size_t threads = test::threadCount();
  std::size_t files = test::openFiles().size();

  friend bool operator==(const Resources& a, const Resources& b) {
    return a.threads == b.threads && a.files == b.files;
  }
};

constexpr std::chrono::hours kNever{1};

class RegistryLinux : public testing::Test {
 protected:
  ~RegistryLinux() override {
    registry_.closeKey(key_);
    systemEvents().close(changed_);
  }

  void rename(const std::string& text) {
    write(folder_.file("new"), text);
    fs::rename(folder_.file("new"), file_);
  }
  void open(const std::u16string& path = u"A") {
    ASSERT_EQ(registry_.openKey(path, &key_), error::kSuccess);
  }
  void arm() { ASSERT_EQ(registry_.notifyChange(key_, changed_), error::kSuccess); }
  void waitForChange() { ASSERT_EQ(systemEvents().waitAny(&changed_, 1), 0U); }

  bool isQuiet() {
    const EventHandle both[] = {changed_, systemEvents().create()};
    systemEvents().set(both[1]);
    const bool quiet = systemEvents().waitAny(both, 2) == 1;
    systemEvents().close(both[1]);
    return quiet;
  }

  // Reads the key A's value x.
  std::uint32_t get(std::uint32_t* value) { return registry_.getDword(u"A", u"x", value); }
  // The value x of the open key, if it has one.
  std::optional<std::uint32_t> number() {
    std::uint32_t value = 0;
    std::uint32_t size = sizeof(value);
    const std::uint32_t result = registry_.queryValue(key_, u"x", nullptr, &value, &size);
    return result == error::kSuccess ? std::optional(value) : std::nullopt;
  }
  // Waits for changes until the value is `wanted`, like a reader that follows it.
  void followUntil(std::optional<std::uint32_t> wanted) {
    do {
      arm();
      waitForChange();
    } while (number() != wanted);
  }

  const test::TempFolder folder_;
  const fs::path file_ = folder_.path() / "registry.reg";
  const std::string name_ = file_.string();
  Problems problems_;
  FileRegistry registry_{[this] { return name_; },
                         [this](const std::string& problem) { problems_.push_back(problem); },
                         {kNever, kNever}};
  EventHandle changed_ = systemEvents().create();
  RegistryKey key_ = nullptr;
  std::uint32_t value_ = 0;
};

// Watches the key A of a registry with the test's limits for writers.
class Hasty {
 public:
  Hasty(const std::string& file, const FileRegistry::WriterTimes& times)
      : registry_([file] { return file; }, [](const std::string&) {}, times) {
    EXPECT_EQ(registry_.openKey(u"A", &key_), error::kSuccess);
    arm();
  }
  ~Hasty() {
    registry_.closeKey(key_);
    systemEvents().close(changed_);
  }
  Hasty(const Hasty&) = delete;
  Hasty& operator=(const Hasty&) = delete;

  void arm() { EXPECT_EQ(registry_.notifyChange(key_, changed_), error::kSuccess); }
  void waitForChange() { EXPECT_EQ(systemEvents().waitAny(&changed_, 1), 0U); }

 private:
  FileRegistry registry_;
  const EventHandle changed_ = systemEvents().create();
  RegistryKey key_ = nullptr;
};

TEST_F(RegistryLinux, MissingFile_IsAnEmptyRegistry) {
  EXPECT_EQ(get(&value_), error::kFileNotFound);
  EXPECT_EQ(registry_.openKey(u"A", &key_), error::kFileNotFound);
  EXPECT_EQ(problems_, Problems());
}

TEST_F(RegistryLinux, FileThatCannotBeRead_IsAnEmptyRegistryAndReportedOnce) {
  const struct {
    std::function<void()> make;
    const char* problem;
  } cases[] = {
      {[this] { fs::create_directory(file_); }, "Is a directory"},
      {[this] { ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0); }, nullptr},
      {[this] { fs::create_symlink("registry.reg", file_); }, "Too many levels of symbolic links"},
      {[this] { write(file_, content(1) + ";" + std::string(1024 * 1024, 'x')); },
       "File too large"},
      {[this] { write(file_, content(1)), fs::resize_file(file_, std::uintmax_t{1} << 40); },
       nullptr},
  };
  Problems expected;
  for (const auto& each : cases) {
    each.make();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(get(&value_), error::kFileNotFound);
    if (each.problem != nullptr) expected.push_back(name_ + ": cannot be read: " + each.problem);
    EXPECT_EQ(problems_, expected);
    fs::remove(file_);
  }
}

TEST_F(RegistryLinux, LineNotUnderstood_IsReportedOnce) {
  const std::string skipped = ": not understood, skipped";
  write(file_, content(1) + "nonsense\n");
  open();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(get(&value_), error::kSuccess);
  rename(content(2) + "nonsense\n\"torn\n");
  EXPECT_EQ(number(), 2U);
  EXPECT_EQ(problems_, (Problems{name_ + ":4" + skipped, name_ + ":5" + skipped}));
  rename(content(2) + "other nonsense\n");
  EXPECT_EQ(number(), 2U);
  EXPECT_EQ(problems_.size(), 3U);
}

TEST_F(RegistryLinux, ManyBadLines_AreReportedUpToALimitThatTheLastOneMentions) {
  std::string text;
  for (int i = 0; i < 1000; ++i) text += "bad\n";
  write(file_, text + content(1));
  EXPECT_EQ(get(&value_), error::kSuccess);
  ASSERT_EQ(problems_.size(), FileRegistry::kMaxReports);
  EXPECT_EQ(problems_.back(),
            name_ + ":64: not understood, skipped; no more is reported from here on");
}

TEST_F(RegistryLinux, FileReplacedOrWrittenInPlace_SignalsAndIsReadAnew) {
  write(file_, content(1));
  open();
  arm();
  rename(content(2));
  waitForChange();
  EXPECT_EQ(number(), 2U);
  EXPECT_EQ(get(&value_), error::kSuccess);
  EXPECT_EQ(value_, 2U);
  write(file_, content(3));  // the new file
  followUntil(3);
}

TEST_F(RegistryLinux, ReaderOfAHalfWrittenFile_IsToldWhenItIsDone) {
  write(file_, content(1));
  open();
  arm();
  const ScopedFd half(::open(file_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
  EXPECT_EQ(number(), std::nullopt);
  // At the end the file has its former content, but the reader has seen another one.
  const std::string text = content(1);
  ASSERT_EQ(::write(half.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  ScopedFd(::open(file_.c_str(), O_WRONLY | O_CLOEXEC)).reset();
  waitForChange();
  EXPECT_EQ(number(), 1U);
  arm();
  EXPECT_TRUE(isQuiet());
}

TEST_F(RegistryLinux, WriterThatKeepsTheFileOpen_IsWaitedForUntilItIsQuiet) {
  write(file_, content(1));
  open();
  arm();
  Hasty hasty(name_, {std::chrono::milliseconds(1), kNever});
  ScopedFd writer(::open(file_.c_str(), O_WRONLY | O_CLOEXEC));
  const std::string text = content(2);
  ASSERT_EQ(::write(writer.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  hasty.waitForChange();
  EXPECT_TRUE(isQuiet());  // the patient one still waits
  writer.reset();
  waitForChange();
}

TEST_F(RegistryLinux, WriterThatNeverPauses_IsWaitedForNoLongerThanTheLimit) {
  write(file_, content(1));
  Hasty hasty(name_, {kNever, std::chrono::milliseconds(20)});
  const ScopedFd file(::open(file_.c_str(), O_WRONLY | O_CLOEXEC));
  std::atomic<bool> noticed{false};
  std::thread writer([&] {
    const std::string text = content(2);
    while (!noticed) {
      EXPECT_EQ(pwrite(file.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }
  });
  hasty.waitForChange();
  noticed = true;
  writer.join();
}

TEST_F(RegistryLinux, EventClosedBeforeTheKey_LeavesOthersAlone) {
  write(file_, content(1));
  open();
  const EventHandle gone = systemEvents().create();
  ASSERT_EQ(registry_.notifyChange(key_, gone), error::kSuccess);
  systemEvents().close(gone);
  RegistryKey other = nullptr;
  ASSERT_EQ(registry_.openKey(u"A", &other), error::kSuccess);
  ASSERT_EQ(registry_.notifyChange(other, changed_), error::kSuccess);
  const EventHandle both[] = {systemEvents().create(), changed_};
  rename(content(2));
  EXPECT_EQ(systemEvents().waitAny(both, 2), 1U);
  registry_.closeKey(other);
  systemEvents().close(both[0]);
}

TEST_F(RegistryLinux, ClosedKey_LeavesNoThreadOrDescriptor) {
  write(file_, content(1));
  const auto before = Resources();
  open();
  EXPECT_EQ(Resources(), before);  // not watched yet
  arm();
  arm();
  EXPECT_EQ(Resources().threads, before.threads + 1);
  registry_.closeKey(key_);
  EXPECT_EQ(Resources(), before);
}

#if !defined(__SANITIZE_ADDRESS__)  // the sanitizers look into memory by a pipe that they open
TEST_F(RegistryLinux, NoDescriptorLeft_FailsTheCallAndLosesNothing) {
  write(file_, content(1));
  open();
  {
    test::DescriptorShortage shortage;
    EXPECT_EQ(get(&value_), error::kNotEnoughMemory);
    EXPECT_EQ(number(), std::nullopt);
    for (int i = 0; i < 3; ++i) {  // one suffices for the event, two for the watch as well
      EXPECT_EQ(registry_.notifyChange(key_, changed_), error::kNotEnoughMemory);
      shortage.release(1);
    }
  }
  arm();
  rename(content(2));
  waitForChange();
  EXPECT_EQ(number(), 2U);
}
#endif

TEST_F(RegistryLinux, ChangeThatCannotBeRead_IsSignalledAndFoundLater) {
  write(file_, content(1));
  write(folder_.file("new"), content(2));
  open();
  arm();
  {
    const test::DescriptorShortage shortage;
    fs::rename(folder_.file("new"), file_);
    waitForChange();
  }
  arm();
  waitForChange();
  EXPECT_EQ(number(), 2U);
}

// Three readers that each follow the value to its end, and one that comes and goes.
TEST_F(RegistryLinux, LastOfManyChangesInEveryWay_IsSeenByAllReaders) {
  constexpr std::uint32_t kChanges = 300;
  write(file_, content(0));
  const auto before = Resources();
  std::atomic<bool> stop{false};
  std::vector<std::thread> readers;
  readers.reserve(3);
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      RegistryKey root = nullptr;
      const EventHandle event = systemEvents().create();
      EXPECT_EQ(registry_.openKey(u"", &root), error::kSuccess);
      for (std::uint32_t seen = 0; get(&seen) != error::kSuccess || seen != kChanges;) {
        EXPECT_EQ(registry_.notifyChange(root, event), error::kSuccess);
        EXPECT_EQ(systemEvents().waitAny(&event, 1), 0U);
      }
      registry_.closeKey(root);
      systemEvents().close(event);
    });
  }
  readers.emplace_back([&] {
    while (!stop) {
      RegistryKey key = nullptr;
      EXPECT_EQ(registry_.openKey(u"", &key), error::kSuccess);
      EXPECT_EQ(registry_.notifyChange(key, changed_), error::kSuccess);
      registry_.closeKey(key);
    }
  });
  for (std::uint32_t i = 1; i <= kChanges; ++i) {
    if (i % 3 == 1) fs::remove(file_);
    if (i % 3 == 2) rename(content(i));
    if (i % 3 != 2) write(file_, content(i));
  }
  stop = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(Resources(), before);
}

TEST(SystemRegistry, ItsFile_IsTheVariablesOrTheDefault) {
  {
    const test::ScopedVariable variable("ZELTA_REGISTRY", "");
    EXPECT_EQ(registryFilePath(), "/etc/zelta/registry.reg");
  }
  const test::TempFolder folder;
  for (const std::uint32_t number : {1U, 2U}) {
    write(folder.file(std::to_string(number)), content(number));
    const test::ScopedVariable variable("ZELTA_REGISTRY", folder.file(std::to_string(number)));
    std::uint32_t value = 0;
    EXPECT_EQ(systemRegistry().getDword(u"A", u"x", &value), error::kSuccess);
    EXPECT_EQ(value, number);
  }
}

// In a separate process: a report is not repeated in the same one.
TEST(SystemRegistryDeathTest, LineNotUnderstood_IsReportedToStandardErrorOnce) {
  const test::TempFolder folder;
  write(folder.file("registry.reg"), "[HKLM\\A]\nwhat is this\n");
  const test::ScopedVariable variable("ZELTA_REGISTRY", folder.file("registry.reg"));
  const auto askThrice = [] {
    std::uint32_t value = 0;
    for (int i = 0; i < 3; ++i) systemRegistry().getDword(u"A", u"x", &value);
    std::_Exit(0);
  };
  EXPECT_EXIT(askThrice(), testing::ExitedWithCode(0),
              "^zelta: .*/registry.reg:2: not understood, skipped\n$");
}

}  // namespace
}  // namespace zelta::platform
