// The logging library on the system's own clock, events and registry.
#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "logging/zelta_logging.h"
#include "tests/doubles/registry/counting_registry.h"
#include "tests/support/log_files.h"
#include "tests/support/logging_ports.h"
#include "tests/support/own_registry.h"
#include "tests/support/process_state.h"
#include "tests/support/recording_logger.h"
#include "tests/support/repetitions.h"
#include "tests/support/temp_folder.h"
#if !defined(_WIN32)
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace zelta::logging {
namespace {

constexpr char kKey[] = "SOFTWARE\\Vornhalt\\ZeltaAgent";
// Threads that were joined may still be on the system's list for a moment. If each logger left one
// behind, there would be more.
constexpr std::size_t kEndingThreads = 50;

class LoggingSystemTest : public ::testing::Test {
 protected:
  LoggingSystemTest() { std::filesystem::create_directory(logs()); }

  std::filesystem::path logs() const { return folder_.path() / "logs"; }
  std::unique_ptr<FileLoggerWindows> makeLogger() const {
    return std::make_unique<FileLoggerWindows>(0, 2, "0f8fad5b-d9cb-469f-a165-70867728950e",
                                               folder_.file("logs/tool"), 0);
  }
  // Messages "NAME<thread>/<line>" from many threads.
  void logFromManyThreads(const std::string& name) const {
    const auto logger = makeLogger();
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&logger, label = name + std::to_string(i) + "/"] {
        for (int line = 0; line < kLines; ++line) logger->log(label + std::to_string(line), 2, 0);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }

  static constexpr int kThreads = 16;
  static constexpr int kLines = 500;
  const test::TempFolder folder_;
  test::OwnRegistry own_;
  test::CountingRegistry registry_;
};

TEST_F(LoggingSystemTest, ChangesOfTheRegistry_ReachTheNotifiersCallback) {
  test::RecordingLogger logger;
  test::RecordingLogger received;
  const auto make = [&] {
    return std::make_unique<RegistryChangeNotifier>(
        kKey, "Text", [&](const std::string& text) { received.log(text, 0, 0); }, &logger);
  };
  EXPECT_THROW(make(), std::runtime_error) << "there is no key";
  own_.setText(test::kAgentKey, u"Text", u"one");
  const auto notifier = make();
  EXPECT_EQ(received.lines().back().message, "one");
  registry_.awaitNotifications(1);
  own_.setText(test::kAgentKey, u"Text", u"sm\u00F8r");
  received.awaitLines(2);
  EXPECT_EQ(received.lines().back().message, "sm\xC3\xB8r");
  registry_.awaitNotifications(2);
  own_.setDword(test::kAgentKey, u"Text", 7);
  logger.awaitLines(1);
  EXPECT_EQ(logger.lines().back().message, "Unexpected value type \"4\" from registry value: Text");
  registry_.awaitNotifications(3);
  own_.setText(test::kAgentKey, u"Text", u"two");
  received.awaitLines(3);
  EXPECT_EQ(received.lines().back().message, "two");
}

TEST_F(LoggingSystemTest, ChangedRotationTime_IsFollowedWithoutARestart) {
  own_.setText(test::kAgentKey, test::kRotationTime, u"60");
  test::SimulatedClock clock;
  test::ScopedClock scope(clock);
  const auto logger = makeLogger();
  EXPECT_EQ(logger->rotationPeriod(), 3'600'000);
  registry_.awaitNotifications(1);
  own_.setText(test::kAgentKey, test::kRotationTime, u"7.5");
  clock.awaitDeadline(test::kMarchTime + 420'000 * platform::kClockUnitsPerMillisecond);
  EXPECT_EQ(logger->rotationPeriod(), 420'000);
}

TEST_F(LoggingSystemTest, ManyLoggersMadeAndDestroyed_LeaveNothing) {
  constexpr int kTimes = test::repetitions(300);
  own_.setText(test::kAgentKey, test::kRotationTime, u"60");
  makeLogger().reset();  // whatever is kept for the process is kept from here on
  const std::size_t threads = test::threadCount();
  const std::vector<std::string> files = test::openFiles();
  for (int i = 0; i < kTimes; ++i) {
    const auto logger = makeLogger();
    logger->createChildForCategory(1)->log(2, 0, "text");
  }
  EXPECT_LT(test::threadCount(), threads + kEndingThreads);
  EXPECT_EQ(test::openFiles(), files);
  EXPECT_EQ(test::filesIn(logs()).size(), kTimes + 1u);
}

#if !defined(_WIN32)

TEST_F(LoggingSystemTest, TwoProcessesInOneFolder_LoseAndTearNoLine) {
  own_.setText(test::kAgentKey, test::kRotationTime, u"0");
  std::vector<pid_t> processes;
  for (const char* name : {"a", "b"}) {
    const pid_t process = fork();
    ASSERT_GE(process, 0);
    if (process == 0) {
      logFromManyThreads(name);
      _exit(0);
    }
    processes.push_back(process);
  }
  for (const pid_t process : processes) {
    int status = -1;
    ASSERT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
  }
  test::expectNumberedMessages(test::messagesOf(test::recordsIn(logs())), 2 * kThreads, kLines);
}

#endif

}  // namespace
}  // namespace zelta::logging
