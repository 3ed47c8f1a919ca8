#include "platform/process/thread_id.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>

#if defined(_WIN32)
#include <windows.h>
#endif

namespace zelta::platform {
namespace {

std::string numberInTheSystem() {
#if defined(_WIN32)
  return std::to_string(GetThreadId(GetCurrentThread()));
#else
  return std::filesystem::read_symlink("/proc/thread-self").filename();
#endif
}

TEST(ThreadIdTest, EveryThreadsNumber_IsItsOwnInTheSystem) {
  const auto mine = currentThreadId();
  std::thread([mine] {
    EXPECT_NE(currentThreadId(), mine);
    EXPECT_EQ(numberInTheSystem(), std::to_string(currentThreadId()));
  }).join();
  EXPECT_EQ(currentThreadId(), mine);
}

}  // namespace
}  // namespace zelta::platform
