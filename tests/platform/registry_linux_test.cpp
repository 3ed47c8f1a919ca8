// The registry file as it is changed in every way that a file can be.
#include "platform/registry_linux.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/utf.h"
#include "tests/platform/process_resources.h"
#include "tests/support/temp_folder.h"

namespace zelta::platform {
namespace {

namespace fs = std::filesystem;

std::string content(const std::string& number, const std::string& other = "0") {
  return "Windows Registry Editor Version 5.00\n\n[HKLM\\A]\n\"x\"=dword:" + number +
         "\n[HKLM\\B]\n\"x\"=dword:" + other + "\n";
}

void write(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// No descriptor is left to the process while this is there.
class DescriptorShortage {
 public:
  DescriptorShortage() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit few{std::min<rlim_t>(before_.rlim_cur, 256), before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    for (;;) {
      ScopedFd one(::open("/dev/null", O_RDONLY | O_CLOEXEC));
      if (!one) return;
      all_.push_back(std::move(one));
    }
  }
  ~DescriptorShortage() { setrlimit(RLIMIT_NOFILE, &before_); }
  DescriptorShortage(const DescriptorShortage&) = delete;
  DescriptorShortage& operator=(const DescriptorShortage&) = delete;

  void release(std::size_t count) { all_.resize(all_.size() - count); }

 private:
  rlimit before_{};
  std::vector<ScopedFd> all_;
};

class RegistryLinux : public testing::Test {
 protected:
  RegistryLinux()
      : file_(folder_.path() / "etc" / "zelta" / "registry.reg"),
        registry_([this] { return file_.string(); },
                  [this](const std::string& problem) { problems_.push_back(problem); }),
        changed_(systemEvents().create()) {
    fs::create_directories(file_.parent_path());
  }
  ~RegistryLinux() override {
    if (key_ != nullptr) registry_.closeKey(key_);
    systemEvents().close(changed_);
  }

  void rename(const std::string& text) {
    const fs::path fresh = folder_.path() / "new";
    write(fresh, text);
    fs::rename(fresh, file_);
  }

  void open(const std::u16string& path = u"A") {
    ASSERT_EQ(registry_.openKey(path, &key_), error::kSuccess);
  }
  void arm() { ASSERT_EQ(registry_.notifyChange(key_, changed_), error::kSuccess); }
  void waitForChange() { ASSERT_EQ(systemEvents().waitAny(&changed_, 1), 0U); }

  // The value x of the open key; nothing where it is not there.
  std::optional<std::uint32_t> number() {
    std::uint32_t type = 0;
    std::uint32_t value = 0;
    std::uint32_t size = sizeof(value);
    const std::uint32_t result = registry_.queryValue(key_, u"x", &type, &value, &size);
    if (result != error::kSuccess) return std::nullopt;
    return value;
  }

  // As a reader that follows the value does: waits for changes until it is `wanted`.
  void followUntil(std::optional<std::uint32_t> wanted) {
    for (;;) {
      arm();
      waitForChange();
      if (number() == wanted) return;
    }
  }

  test::TempFolder folder_;
  fs::path file_;
  std::vector<std::string> problems_;
  FileRegistry registry_;
  EventHandle changed_;
  RegistryKey key_ = nullptr;
};

TEST_F(RegistryLinux, AMissingFileIsAnEmptyRegistry) {
  std::uint32_t value = 0;
  EXPECT_EQ(registry_.getDword(u"A", u"x", &value), error::kFileNotFound);
  EXPECT_EQ(registry_.openKey(u"A", &key_), error::kFileNotFound);
  fs::remove_all(folder_.path() / "etc");
  EXPECT_EQ(registry_.getDword(u"A", u"x", &value), error::kFileNotFound);
  EXPECT_TRUE(problems_.empty());
}

TEST_F(RegistryLinux, AFileRenamedOverItIsNoticed) {
  write(file_, content("1"));
  open();
  arm();
  rename(content("2"));
  waitForChange();
  EXPECT_EQ(number(), 2U);
}

TEST_F(RegistryLinux, AFileWrittenInPlaceIsNoticed) {
  write(file_, content("1"));
  open();
  arm();
  write(file_, content("2"));
  followUntil(2);
}

TEST_F(RegistryLinux, AppendedLinesAreNoticed) {
  write(file_, content("1"));
  open();
  arm();
  std::ofstream(file_, std::ios::app) << "[HKLM\\A]\n\"x\"=dword:2\n";
  waitForChange();
  EXPECT_EQ(number(), 2U);
}

TEST_F(RegistryLinux, OneBytePatchedInPlaceIsNoticed) {
  write(file_, content("1"));
  open();
  arm();
  {
    std::fstream file(file_, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(content("1").find("dword:1") + 6));
    file << '2';
  }
  waitForChange();
  EXPECT_EQ(number(), 2U);
}

TEST_F(RegistryLinux, AFileTruncatedAndRefilledLaterIsNoticedBothTimes) {
  write(file_, content("1"));
  open();
  arm();
  write(file_, "");
  waitForChange();
  EXPECT_EQ(number(), std::nullopt);
  arm();
  write(file_, content("2"));
  waitForChange();
  EXPECT_EQ(number(), 2U);
}

TEST_F(RegistryLinux, AFileRemovedAndPutBackIsNoticedBothTimes) {
  write(file_, content("1"));
  open();
  arm();
  fs::remove(file_);
  waitForChange();
  EXPECT_EQ(number(), std::nullopt);
  arm();
  write(file_, content("1"));
  followUntil(1);
}

TEST_F(RegistryLinux, AFileMovedAwayAndBackIsNoticedBothTimes) {
  write(file_, content("1"));
  open();
  arm();
  fs::rename(file_, folder_.path() / "aside");
  waitForChange();
  EXPECT_EQ(number(), std::nullopt);
  arm();
  fs::rename(folder_.path() / "aside", file_);
  waitForChange();
  EXPECT_EQ(number(), 1U);
}

TEST_F(RegistryLinux, AFileLinkedIntoPlaceIsNoticed) {
  write(file_, content("1"));
  open();
  fs::remove(file_);
  arm();
  waitForChange();
  write(folder_.path() / "other", content("2"));
  arm();
  fs::create_hard_link(folder_.path() / "other", file_);
  waitForChange();
  EXPECT_EQ(number(), 2U);
}

TEST_F(RegistryLinux, AFileWrittenByAnotherNameIsNoticed) {
  write(folder_.path() / "other", content("1"));
  fs::create_hard_link(folder_.path() / "other", file_);
  open();
  arm();
  write(folder_.path() / "other", content("2"));
  followUntil(2);
}

TEST_F(RegistryLinux, AFolderRemovedAndMadeAgainIsNoticed) {
  write(file_, content("1"));
  open();
  for (const fs::path& top : {file_.parent_path(), folder_.path() / "etc"}) {
    arm();
    fs::remove_all(top);
    waitForChange();
    ASSERT_EQ(number(), std::nullopt);
    fs::create_directories(file_.parent_path());
    write(file_, content("2"));
    followUntil(2);
  }
}

TEST_F(RegistryLinux, AFolderMovedIntoPlaceIsNoticed) {
  write(file_, content("1"));
  open();
  arm();
  fs::rename(folder_.path() / "etc", folder_.path() / "away");
  waitForChange();
  EXPECT_EQ(number(), std::nullopt);
  write(folder_.path() / "away" / "zelta" / "registry.reg", content("2"));
  arm();
  fs::rename(folder_.path() / "away", folder_.path() / "etc");
  waitForChange();
  EXPECT_EQ(number(), 2U);
}

TEST_F(RegistryLinux, TheRootCanBeWatchedBeforeThereIsAFolder) {
  fs::remove_all(folder_.path() / "etc");
  open(u"");
  arm();
  fs::create_directories(file_.parent_path());
  write(file_, "[HKLM]\n\"x\"=dword:5\n");
  waitForChange();
  if (number() != 5U) followUntil(5);
}

TEST_F(RegistryLinux, AFileBehindSymbolicLinksIsNoticed) {
  const fs::path real = folder_.path() / "real";
  fs::create_directories(real / "v1");
  fs::create_directories(real / "v2");
  write(real / "v1" / "data.reg", content("1"));
  write(real / "v2" / "data.reg", content("3"));
  fs::create_directory_symlink("v1", real / "current");
  fs::create_symlink("../../real/current/data.reg", file_);
  open();
  arm();
  write(real / "v1" / "data.reg", content("2"));  // the file itself
  followUntil(2);
  arm();
  fs::create_directory_symlink(real / "v2", real / "next");
  fs::rename(real / "next", real / "current");  // a folder on the way
  waitForChange();
  EXPECT_EQ(number(), 3U);
  arm();
  write(real / "last.reg", content("4"));
  fs::create_symlink(real / "last.reg", folder_.path() / "link");
  fs::rename(folder_.path() / "link", file_);  // the link in the file's place
  waitForChange();
  EXPECT_EQ(number(), 4U);
}

TEST_F(RegistryLinux, ALoopOfLinksIsAFileThatCannotBeRead) {
  write(file_, content("1"));
  open();
  arm();
  fs::create_symlink("registry.reg", folder_.path() / "link");
  fs::rename(folder_.path() / "link", file_);
  waitForChange();
  EXPECT_EQ(number(), std::nullopt);
  arm();
  rename(content("2"));
  waitForChange();
  EXPECT_EQ(number(), 2U);
  ASSERT_EQ(problems_.size(), 1U);
  EXPECT_NE(problems_[0].find("cannot be read"), std::string::npos);
}

TEST_F(RegistryLinux, WhatIsNotAFileCannotBeRead) {
  fs::create_directory(file_);
  std::uint32_t value = 0;
  EXPECT_EQ(registry_.getDword(u"A", u"x", &value), error::kFileNotFound);
  fs::remove(file_);
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  EXPECT_EQ(registry_.getDword(u"A", u"x", &value), error::kFileNotFound);
  EXPECT_EQ(registry_.getDword(u"A", u"x", &value), error::kFileNotFound);
  EXPECT_EQ(problems_,
            std::vector<std::string>{file_.string() + ": cannot be read: not a regular file"});
}

TEST_F(RegistryLinux, AFileBeyondTheSizeLimitCannotBeRead) {
  write(file_, content("1"));
  fs::resize_file(file_, 65ULL * 1024 * 1024);
  std::uint32_t value = 0;
  EXPECT_EQ(registry_.getDword(u"A", u"x", &value), error::kFileNotFound);
  EXPECT_EQ(problems_,
            std::vector<std::string>{file_.string() + ": cannot be read: the file is too large"});
}

TEST_F(RegistryLinux, AReaderThatComesWhileTheFileIsWrittenIsToldWhenItIsDone) {
  write(file_, content("1"));
  open();
  arm();
  const int half = ::open(file_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  ASSERT_GE(half, 0);
  EXPECT_EQ(number(), std::nullopt);
  // In the end the file holds what it held before, but the reader has seen something else.
  const std::string text = content("1");
  ASSERT_EQ(::write(half, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  ::close(half);
  waitForChange();
  EXPECT_EQ(number(), 1U);
}

TEST_F(RegistryLinux, EachLineThatIsNotUnderstoodIsReportedOnce) {
  write(file_, content("1") + "nonsense\n");
  std::uint32_t value = 0;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(registry_.getDword(u"A", u"x", &value), error::kSuccess);
  }
  rename("; moved down by a line\n" + content("2") + "nonsense\n\"torn\n");
  EXPECT_EQ(registry_.getDword(u"A", u"x", &value), error::kSuccess);
  EXPECT_EQ(value, 2U);
  EXPECT_EQ(problems_, (std::vector<std::string>{file_.string() + ":7: not understood, skipped",
                                                 file_.string() + ":9: not understood, skipped"}));
}

TEST_F(RegistryLinux, AnEventClosedBeforeTheKeyIsLeftAlone) {
  write(file_, content("1"));
  open();
  const EventHandle gone = systemEvents().create();
  ASSERT_EQ(registry_.notifyChange(key_, gone), error::kSuccess);
  RegistryKey other = nullptr;
  ASSERT_EQ(registry_.openKey(u"A", &other), error::kSuccess);
  ASSERT_EQ(registry_.notifyChange(other, changed_), error::kSuccess);
  systemEvents().close(gone);
  const EventHandle bystander = systemEvents().create();
  rename(content("2"));
  const EventHandle both[] = {bystander, changed_};
  EXPECT_EQ(systemEvents().waitAny(both, 2), 1U);
  registry_.closeKey(other);
  systemEvents().close(bystander);
}

TEST_F(RegistryLinux, NothingIsLeftOnceTheLastKeyIsClosed) {
  write(file_, content("1"));
  const auto before = test::processResources();
  for (int round = 0; round < 20; ++round) {
    open();
    RegistryKey second = nullptr;
    ASSERT_EQ(registry_.openKey(u"B", &second), error::kSuccess);
    ASSERT_EQ(test::processResources(), before);  // none needed yet
    arm();
    ASSERT_EQ(registry_.notifyChange(second, changed_), error::kSuccess);
    ASSERT_EQ(test::processResources().threads, before.threads + 1);
    registry_.closeKey(key_);
    ASSERT_EQ(test::processResources().threads, before.threads + 1);
    registry_.closeKey(second);
    ASSERT_EQ(test::processResources(), before);
  }
  key_ = nullptr;
}

#if !defined(__SANITIZE_ADDRESS__)  // the sanitizers look into memory by a pipe that they open
TEST_F(RegistryLinux, NoDescriptorLeftFailsTheCallAndLosesNothing) {
  write(file_, content("1"));
  open();
  {
    DescriptorShortage shortage;
    std::uint32_t value = 0;
    EXPECT_EQ(registry_.getDword(u"A", u"x", &value), error::kNotEnoughMemory);
    EXPECT_EQ(number(), std::nullopt);
    EXPECT_EQ(registry_.notifyChange(key_, changed_), error::kNotEnoughMemory);
    shortage.release(1);  // enough for the event, not for the watch
    EXPECT_EQ(registry_.notifyChange(key_, changed_), error::kNotEnoughMemory);
  }
  arm();
  rename(content("2"));
  waitForChange();
  EXPECT_EQ(number(), 2U);
}
#endif

TEST_F(RegistryLinux, AChangeThatCannotBeReadIsSignalledAndFoundLater) {
  write(file_, content("1"));
  write(folder_.path() / "new", content("2"));
  open();
  arm();
  {
    DescriptorShortage shortage;
    fs::rename(folder_.path() / "new", file_);
    waitForChange();
  }
  arm();
  waitForChange();
  EXPECT_EQ(number(), 2U);
}

}  // namespace
}  // namespace zelta::platform
