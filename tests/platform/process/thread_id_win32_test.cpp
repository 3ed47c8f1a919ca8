#include <gtest/gtest.h>
#include <windows.h>

#include <thread>

#include "platform/process/thread_id.h"

namespace zelta::platform {
namespace {

TEST(ThreadIdTest, EveryThreadsNumber_IsItsOwnInTheSystem) {
  const auto mine = currentThreadId();
  std::thread([mine] {
    EXPECT_NE(currentThreadId(), mine);
    EXPECT_EQ(currentThreadId(), GetThreadId(GetCurrentThread()));
  }).join();
  EXPECT_EQ(currentThreadId(), mine);
}

}  // namespace
}  // namespace zelta::platform
