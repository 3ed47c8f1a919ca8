// The driver's logger on the system's own clock and registry.
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "diagnostics/log.h"
#include "diagnostics/log_output.h"
#include "tests/doubles/registry/counting_registry.h"
#include "tests/support/log_files.h"
#include "tests/support/logging_ports.h"
#include "tests/support/own_registry.h"
#include "tests/support/process_state.h"
#include "tests/support/repetitions.h"
#include "tests/support/scoped_port.h"
#include "tests/support/temp_folder.h"

namespace zelta {
namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

constexpr char kSession[] = "0f8fad5b-d9cb-469f-a165-70867728950e";
constexpr int kThreads = 16;
// Threads that were joined may still be on the system's list for a moment. If each logger left one
// behind, there would be more.
constexpr std::size_t kEndingThreads = 50;

class LoggingFacadeSystemTest : public ::testing::Test {
 protected:
  LoggingFacadeSystemTest() {
    fs::create_directories(logs_);
    folders_.programDataPath = folder_.path().u16string();
    own_.setText(test::kAgentKey, test::kRotationTime, u"0");
    setMode(2);
  }
  ~LoggingFacadeSystemTest() override { shutDownLogging(); }

  void setMode(std::uint32_t mode) { own_.setDword(test::kPolicy, test::kFilterMode, mode); }
  // Ends the logger; returns its messages without the debug lines about the rotation time.
  Texts messages() const {
    shutDownLogging();
    Texts all = test::messagesOf(test::recordsIn(logs_));
    if (!all.empty() && all[0].find("New rotation time") == 0) all.erase(all.begin());
    return all;
  }

  test::TempFolder folder_;
  const fs::path logs_ = folder_.path() / "Vornhalt" / "ZeltaAgent" / "logs";
  test::FakeFolders folders_;
  test::OwnRegistry own_;
  const test::ScopedPort inPlace_{&platform::Ports::folders, folders_};
};

TEST_F(LoggingFacadeSystemTest, ChangedPolicy_IsFollowedWithinTwoLooks) {
  test::CountingRegistry registry;
  setMode(1);
  logInfo("dropped");
  logError(1, "error");
  setMode(3);
  registry.awaitLooks(2);  // the second one begins when the first one's result is in force
  logDebug("debug");
  own_.setDword(test::kPolicyDefaults, test::kFilterMode, 0);
  setMode(7);
  registry.awaitLooks(4);  // each is of two keys now
  logError(2, "dropped by the defaults");
  setMode(2);
  registry.awaitLooks(3);
  logInfo("info");
  logDebug("dropped");
  EXPECT_EQ(messages(), (Texts{"error", "debug", "info"}));
}

TEST_F(LoggingFacadeSystemTest, DumpsOfManyThreads_AreNeverMixedWithOtherRecords) {
  constexpr int kDumps = 40;
  constexpr std::size_t kDumpLength = 100;
  setMode(3);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
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
  const Texts all = messages();
  ASSERT_EQ(all.size(), static_cast<std::size_t>(kThreads * kDumps * 9));
  for (std::size_t i = 0; i < all.size();) {
    if (all[i] == "between") {
      ++i;
      continue;
    }
    // A dump of one thread's bytes: 6 lines of 16 and one of 4.
    ASSERT_EQ(all[i], "100 byte dump:");
    const std::string byte = all[i + 1].substr(0, 3);
    std::string expected;
    std::string found;
    for (std::size_t count = 0; count < kDumpLength; ++count) expected += byte;
    for (std::size_t line = 1; line <= 7; ++line) found += all[i + line];
    ASSERT_EQ(found, expected);
    i += 8;
  }
}

TEST_F(LoggingFacadeSystemTest, ManyLoggersMadeAndEnded_LeaveNothing) {
  constexpr int kTimes = test::repetitions(200);
  logInfo("text");
  shutDownLogging();
  const std::size_t threads = test::threadCount();
  const std::vector<std::string> open = test::openFiles();
  for (int i = 0; i < kTimes; ++i) {
    logInfo("text");
    setSessionLogId(kSession);
    shutDownLogging();
  }
  EXPECT_LT(test::threadCount(), threads + kEndingThreads);
  EXPECT_EQ(test::openFiles(), open);
  EXPECT_EQ(test::filesIn(logs_).size(), 2u * kTimes + 1);
}

}  // namespace
}  // namespace zelta
