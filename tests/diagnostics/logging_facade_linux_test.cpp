// The driver's logger on the real system: registry file, clock, full speed, a full disk.
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "diagnostics/log.h"
#include "diagnostics/log_output.h"
#include "tests/support/counting_registry.h"
#include "tests/support/log_files.h"
#include "tests/support/process_state.h"
#include "tests/support/small_disk.h"
#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

namespace fs = std::filesystem;
using test::LogLine;

constexpr char kSession[] = "0f8fad5b-d9cb-469f-a165-70867728950e";
constexpr int kThreads = 16;
// A thread that was joined may still be on the system's list for a moment. One that each of
// hundreds of loggers left behind would be many more.
constexpr std::size_t kEndingThreads = 50;

class RealLoggingTest : public ::testing::Test {
 protected:
  RealLoggingTest() { fs::create_directories(logs()); }
  ~RealLoggingTest() override { shutDownLogging(); }

  fs::path logs() const { return folder_.path() / "Vornhalt" / "ZeltaAgent" / "logs"; }
  void writeRegistry(int mode) {
    std::ofstream(folder_.file("new"))
        << "Windows Registry Editor Version 5.00\n\n"
           "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Policies\\Vornhalt\\Zelta\\zelta_admin]\n"
           "\"zelta.event_filter_mode\"=dword:0000000"
        << mode
        << "\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Vornhalt\\ZeltaAgent]\n"
           "\"ZeltaLogRotationTime\"=\"0\"\n";
    fs::rename(folder_.file("new"), folder_.file("registry.reg"));
  }

  test::TempFolder folder_;
  test::ScopedVariable data_{"ZELTA_PROGRAM_DATA", folder_.path().string()};
  test::ScopedVariable registry_{"ZELTA_REGISTRY", folder_.file("registry.reg")};
};

TEST_F(RealLoggingTest, PolicyOfTheRegistryFileIsFollowedWithinTwoLooks) {
  test::CountingRegistry registry;
  writeRegistry(1);
  logInfo("dropped");
  logError(1, "written");
  writeRegistry(3);
  registry.awaitLooks(2);  // the second one begins when the first one's result is in force
  logDebug("written");
  writeRegistry(2);
  registry.awaitLooks(2);
  logDebug("dropped");
  shutDownLogging();
  EXPECT_EQ(test::summaries(test::recordsIn(logs())),
            (std::vector<std::string>{"<ERROR> 1 written", "<DEBUG> 0 written"}));
}

// Every message "LABEL/N" comes once, N from 0 to `count` - 1 in order within its label.
void expectAllLines(const std::vector<std::string>& messages, int labels, int count) {
  std::map<std::string, int> next;
  for (const std::string& message : messages) {
    const std::size_t slash = message.find('/');
    ASSERT_NE(slash, std::string::npos) << message;
    ASSERT_EQ(message.substr(slash + 1), std::to_string(next[message.substr(0, slash)]++));
  }
  EXPECT_EQ(next.size(), static_cast<std::size_t>(labels));
  for (const auto& [label, seen] : next) EXPECT_EQ(seen, count) << label;
}

TEST_F(RealLoggingTest, NewSessionsUnderLoadLoseAndTearNoLine) {
  constexpr int kLines = 500;
  constexpr int kSessions = 50;
  writeRegistry(2);
  logInfo("main/0");
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([i] {
      for (int line = 0; line < kLines; ++line) logInfo("t%d/%d", i, line);
    });
  }
  for (int i = 0; i < kSessions; ++i) setSessionLogId(kSession);
  for (std::thread& thread : threads) thread.join();
  shutDownLogging();
  EXPECT_EQ(test::filesIn(logs()).size(), kSessions + 1u);
  std::vector<std::string> messages = test::messagesOf(test::recordsIn(logs()));
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.front(), "main/0");
  messages.erase(messages.begin());
  expectAllLines(messages, kThreads, kLines);
}

TEST_F(RealLoggingTest, DumpsOfManyThreadsAreNeverMixedWithOtherRecords) {
  constexpr int kDumps = 40;
  constexpr std::size_t kDumpLength = 100;  // 7 lines
  writeRegistry(3);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([i] {
      const std::vector<std::uint8_t> bytes(kDumpLength, static_cast<std::uint8_t>(i));
      for (int dump = 0; dump < kDumps; ++dump) {
        logInfo("between");
        logByteDump(bytes.data(), bytes.size(), 16);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  shutDownLogging();
  std::vector<LogLine> records = test::recordsIn(logs());
  ASSERT_FALSE(records.empty());
  records.erase(records.begin());  // the rotation time's
  ASSERT_EQ(records.size(), static_cast<std::size_t>(kThreads * kDumps * 9));
  for (std::size_t i = 0; i < records.size();) {
    if (records[i].message == "between") {
      ++i;
      continue;
    }
    ASSERT_EQ(records[i].message, "100 byte dump:");
    const std::string value = records[i + 1].message.substr(0, 3);
    for (std::size_t line = 1; line <= 7; ++line) {
      std::string expected;
      for (int byte = 0; byte < (line < 7 ? 16 : 4); ++byte) expected += value;
      ASSERT_EQ(records[i + line].message, expected);
      ASSERT_EQ(records[i + line].thread, records[i].thread);
    }
    i += 8;
  }
}

TEST_F(RealLoggingTest, BeginningAndEndingManyTimesLeavesNothing) {
  writeRegistry(2);
  logInfo("text");
  shutDownLogging();
  const std::size_t threads = test::threadCount();
  const std::vector<std::string> open = test::openFiles();
  for (int i = 0; i < 200; ++i) {
    logInfo("text");
    setSessionLogId(kSession);
    shutDownLogging();
  }
  EXPECT_LT(test::threadCount(), threads + kEndingThreads);
  EXPECT_EQ(test::openFiles(), open);
  EXPECT_EQ(test::filesIn(logs()).size(), 401u);
}

TEST_F(RealLoggingTest, FullDiskLosesLinesAndNothingElse) {
  writeRegistry(2);
  test::onSmallDisk(64 * 1024, [](const fs::path& disk) {
    const test::ScopedVariable data("ZELTA_PROGRAM_DATA", disk.string());
    const fs::path folder = disk / "Vornhalt" / "ZeltaAgent" / "logs";
    fs::create_directories(folder);
    logInfo("before");
    test::fillDisk(disk / "other");
    for (int i = 0; i < 100; ++i) logInfo("%s", std::string(200, 'x').c_str());
    setSessionLogId(kSession);
    logInfo("lost");
    fs::remove(disk / "other");
    logInfo("after");
    shutDownLogging();
    ASSERT_EQ(test::filesIn(folder).size(), 2u);
    EXPECT_EQ(test::recordsOf(test::filesIn(folder)[0])[0].message, "before");
    EXPECT_EQ(test::recordsOf(test::filesIn(folder)[1]).back().message, "after");
  });
}

}  // namespace
}  // namespace zelta
