#include "platform/process/ports.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/process/error.h"

namespace zelta::platform {
namespace {

TEST(LastError, Number_IsEachThreadsOwnAndBeginsAtSuccess) {
  std::atomic<bool> mineIsSet{false};
  std::atomic<bool> theirsIsSet{false};
  std::thread other([&] {
    EXPECT_EQ(lastError(), error::kSuccess);
    while (!mineIsSet) std::this_thread::yield();
    setLastError(error::kNoData);
    theirsIsSet = true;
  });
  // System calls, also those for threads, may set it even if they succeed.
  setLastError(error::kBadPipe);
  mineIsSet = true;
  while (!theirsIsSet) {
  }
  EXPECT_EQ(lastError(), error::kBadPipe);
  other.join();
}

TEST(Ports, Each_IsTheSystemsUnlessReplaced) {
  EXPECT_EQ(ports().pipes, &systemPipes());
  EXPECT_EQ(ports().events, &systemEvents());
  EXPECT_EQ(ports().registry, &systemRegistry());
  EXPECT_EQ(ports().folders, &systemFolders());
  EXPECT_EQ(ports().clock, &systemWallClock());
  EXPECT_EQ(ports().winsock, &systemWinsock());

  Ports others = ports();
  others.winsock = nullptr;
  const Ports before = replacePorts(others);
  EXPECT_EQ(before.winsock, &systemWinsock());
  EXPECT_EQ(ports().winsock, nullptr);
  EXPECT_EQ(ports().events, &systemEvents());
  EXPECT_EQ(replacePorts(before).winsock, nullptr);
  EXPECT_EQ(ports().winsock, &systemWinsock());
}

}  // namespace
}  // namespace zelta::platform
