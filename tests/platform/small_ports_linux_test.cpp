// The small ports where this system has its own.
#include <gtest/gtest.h>

#include <chrono>

#include "platform/clock.h"
#include "platform/native_path.h"
#include "platform/winsock.h"

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

TEST(TickCount, CountsMillisecondsAndWrapsAt32Bits) {
  using Clock = std::chrono::steady_clock;
  const auto reference = [] {
    const auto time = Clock::now().time_since_epoch();
    return static_cast<std::uint32_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
  };
  const std::uint32_t before = reference();
  const std::uint32_t now = tickCount();
  const std::uint32_t after = reference();
  EXPECT_LE(now - before, after - before);  // also across the wrap
}

TEST(Winsock, SucceedsWithoutDoingAnything) {
  EXPECT_EQ(systemWinsock().startup(0x0202), 0);
  EXPECT_EQ(systemWinsock().cleanup(), 0);
}

}  // namespace
}  // namespace zelta::platform
