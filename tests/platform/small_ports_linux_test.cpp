// The small ports where this system has its own.
#include <gtest/gtest.h>

#include <chrono>

#include "platform/files/file.h"
#include "platform/process/winsock.h"
#include "tests/platform/system_milliseconds.h"

std::uint64_t zelta::test::systemMilliseconds() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
}

namespace zelta::platform {
namespace {

TEST(NativePath, BackslashesBecomeSlashes) {
  EXPECT_EQ(nativePath("/var/log\\Vornhalt\\ZeltaAgent\\logs\\zelta_vsc.log"),
            "/var/log/Vornhalt/ZeltaAgent/logs/zelta_vsc.log");
  EXPECT_EQ(nativePath("/tmp/\\zelta_vsc"), "/tmp//zelta_vsc");
  EXPECT_EQ(nativePath("plain"), "plain");
  EXPECT_EQ(nativePath(""), "");
  EXPECT_EQ(nativePath("/sm\xC3\xB8r\\x"), "/sm\xC3\xB8r/x");
}

TEST(Winsock, SucceedsWithoutDoingAnything) {
  EXPECT_EQ(systemWinsock().startup(0x0202), 0);
  EXPECT_EQ(systemWinsock().cleanup(), 0);
}

}  // namespace
}  // namespace zelta::platform
