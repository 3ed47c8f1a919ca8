// The driver's logger at full speed on the real clock and registry, and what is left of it.
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "diagnostics/log.h"
#include "diagnostics/log_output.h"
#include "platform/process/ports.h"
#include "tests/support/log_files.h"
#include "tests/support/logging_ports.h"
#include "tests/support/own_registry.h"
#include "tests/support/process_state.h"
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

class LoggingLoadTest : public ::testing::Test {
 protected:
  LoggingLoadTest() {
    fs::create_directories(logs());
    folders_.programDataPath = folder_.path().u16string();
    platform::Ports with = before_;
    with.folders = &folders_;
    platform::replacePorts(with);
    registry_.setText(test::kAgentKey, test::kRotationTime, u"0");
    setMode(2);
  }
  ~LoggingLoadTest() override {
    shutDownLogging();
    platform::replacePorts(before_);
  }

  fs::path logs() const { return folder_.path() / "Vornhalt" / "ZeltaAgent" / "logs"; }
  void setMode(std::uint32_t mode) { registry_.setDword(test::kPolicy, test::kFilterMode, mode); }

  test::TempFolder folder_;
  test::FakeFolders folders_;
  test::OwnRegistry registry_;
  const platform::Ports before_ = platform::ports();
};

TEST_F(LoggingLoadTest, NewSessionsUnderLoadLoseAndTearNoLine) {
  constexpr int kLines = 500;
  constexpr int kSessions = 50;
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
  test::expectNumberedMessages(messages, kThreads, kLines);
}

TEST_F(LoggingLoadTest, DumpsOfManyThreadsAreNeverMixedWithOtherRecords) {
  constexpr int kDumps = 40;
  constexpr std::size_t kDumpLength = 100;  // 7 lines
  setMode(3);
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

TEST_F(LoggingLoadTest, BeginningAndEndingManyTimesLeavesNothing) {
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

}  // namespace
}  // namespace zelta
