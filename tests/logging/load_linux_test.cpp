// The logger at full speed on the real clock, and what is left of it afterwards.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <thread>

#include "logging/zelta_logging.h"
#include "tests/support/log_files.h"
#include "tests/support/process_state.h"
#include "tests/support/temp_folder.h"

namespace zelta::logging {
namespace {

using test::LogLine;

constexpr char kSession[] = "0f8fad5b-d9cb-469f-a165-70867728950e";
constexpr int kThreads = 16;
constexpr int kLines = 500;
// A thread that was joined may still be on the system's list for a moment. One that each of
// hundreds of loggers left behind would be many more.
constexpr std::size_t kEndingThreads = 50;

class LoadTest : public ::testing::Test {
 protected:
  std::string base() const { return folder_.file("logs/tool"); }
  std::unique_ptr<FileLoggerWindows> makeLogger() const {
    return std::make_unique<FileLoggerWindows>(0, 2, kSession, base(), 0);
  }
  // An empty registry of its own: each logger begins with one Error record.
  test::TempFolder folder_;
  test::ScopedVariable variable_{"ZELTA_REGISTRY", folder_.file("none.reg")};

  void SetUp() override { std::filesystem::create_directory(folder_.file("logs")); }
};

void logFromManyThreads(LoggerBase& logger, const std::string& name) {
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&logger, name, i] {
      const std::string label = name + std::to_string(i) + "/";
      for (int line = 0; line < kLines; ++line) logger.log(2, 0, label + std::to_string(line));
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// Every record "LABEL/N" comes once and in order within its label.
void expectAllLines(const std::vector<LogLine>& records, std::size_t labels) {
  std::map<std::string, int> next;
  for (const LogLine& record : records) {
    const std::size_t slash = record.message.find('/');
    if (record.level == "<ERROR>") continue;
    const std::string label = record.message.substr(0, slash);
    ASSERT_EQ(record.message.substr(slash + 1), std::to_string(next[label]++)) << label;
  }
  EXPECT_EQ(next.size(), labels);
  for (const auto& [label, count] : next) EXPECT_EQ(count, kLines) << label;
}

TEST_F(LoadTest, SixteenThreadsLoseAndTearNoLine) {
  auto logger = makeLogger();
  logFromManyThreads(*logger, "t");
  logger.reset();
  expectAllLines(test::recordsIn(folder_.file("logs")), kThreads);
}

TEST_F(LoadTest, TwoProcessesLoseAndTearNoLine) {
  std::vector<pid_t> processes;
  for (const char* name : {"a", "b"}) {
    const pid_t process = fork();
    ASSERT_GE(process, 0);
    if (process == 0) {
      {
        auto logger = makeLogger();
        logFromManyThreads(*logger, name);
      }
      _exit(0);
    }
    processes.push_back(process);
  }
  for (const pid_t process : processes) {
    int status = -1;
    ASSERT_EQ(waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
  }
  expectAllLines(test::recordsIn(folder_.file("logs")), 2 * kThreads);
}

TEST_F(LoadTest, MakingAndDestroyingManyLeavesNothing) {
  makeLogger().reset();  // whatever is kept for the process is kept from here on
  const std::size_t threads = test::threadCount();
  const std::vector<std::string> files = test::openFiles();
  for (int i = 0; i < 300; ++i) {
    auto logger = makeLogger();
    const auto child = logger->createChildForCategory(1);
    child->log(2, 0, "text");
  }
  EXPECT_LT(test::threadCount(), threads + kEndingThreads);
  EXPECT_EQ(test::openFiles(), files);
  EXPECT_EQ(test::filesIn(folder_.file("logs")).size(), 301u);
}

TEST_F(LoadTest, MakingAndDestroyingManyWithARegistryLeavesNothing) {
  std::ofstream(folder_.file("some.reg"))
      << "Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Vornhalt\\"
         "ZeltaAgent]\n\"ZeltaLogRotationTime\"=\"60\"\n";
  const test::ScopedVariable variable("ZELTA_REGISTRY", folder_.file("some.reg"));
  makeLogger().reset();
  const std::size_t threads = test::threadCount();
  const std::vector<std::string> files = test::openFiles();
  for (int i = 0; i < 300; ++i) makeLogger().reset();
  EXPECT_LT(test::threadCount(), threads + kEndingThreads);
  EXPECT_EQ(test::openFiles(), files);
}

}  // namespace
}  // namespace zelta::logging
