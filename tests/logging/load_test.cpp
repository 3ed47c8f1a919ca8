// The logger at full speed on the real clock, and what is left of it afterwards.
#include "tests/logging/load_test.h"

#include "tests/support/logging_ports.h"
#include "tests/support/process_state.h"

namespace zelta::logging {
namespace {

// A thread that was joined may still be on the system's list for a moment. One that each of
// hundreds of loggers left behind would be many more.
constexpr std::size_t kEndingThreads = 50;

TEST_F(LoadTest, SixteenThreadsLoseAndTearNoLine) {
  auto logger = makeLogger();
  logFromManyThreads(*logger, "t");
  logger.reset();
  expectAllLines(kThreads);
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
  EXPECT_EQ(test::filesIn(logs()).size(), 301u);
}

TEST_F(LoadTest, MakingAndDestroyingManyWithARegistryLeavesNothing) {
  registry_.setText(test::kAgentKey, test::kRotationTime, u"60");
  makeLogger().reset();
  const std::size_t threads = test::threadCount();
  const std::vector<std::string> files = test::openFiles();
  for (int i = 0; i < 300; ++i) makeLogger().reset();
  EXPECT_LT(test::threadCount(), threads + kEndingThreads);
  EXPECT_EQ(test::openFiles(), files);
}

}  // namespace
}  // namespace zelta::logging
