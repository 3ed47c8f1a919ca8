#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>

#include "platform/process/thread_id.h"

namespace zelta::platform {
namespace {

TEST(ThreadIdTest, EveryThreadsNumber_IsItsOwnTaskOfTheProcess) {
  const auto mine = currentThreadId();
  std::thread([mine] {
    EXPECT_NE(currentThreadId(), mine);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/thread-self").filename(),
              std::to_string(currentThreadId()));
  }).join();
  EXPECT_EQ(currentThreadId(), mine);
}

}  // namespace
}  // namespace zelta::platform
