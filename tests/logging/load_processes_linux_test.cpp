// Loggers of two processes that write into one folder at full speed.
#include <sys/wait.h>
#include <unistd.h>

#include "tests/logging/load_test.h"

namespace zelta::logging {
namespace {

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
  expectAllLines(2 * kThreads);
}

}  // namespace
}  // namespace zelta::logging
