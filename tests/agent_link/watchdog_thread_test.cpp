#include "agent_link/watchdog_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "agent_link/query_watchdog.h"
#include "tests/support/log_capture.h"
#include "tests/support/process_state.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;

class WatchdogThreadTest : public ::testing::Test {
 protected:
  const LogCapture log_;
};

TEST_F(WatchdogThreadTest, IsOneForAllQueriesAndEndsWithItsOwner) {
  const std::size_t before = threadCount();
  {
    WatchdogThread thread(1h);
    EXPECT_EQ(threadCount(), before) << "started before the first query";
    for (int query = 0; query < 3; ++query) {
      const QueryWatchdog watchdog(thread, [] {});
      EXPECT_EQ(threadCount(), before + 1);
    }
    EXPECT_EQ(threadCount(), before + 1) << "not parked";
  }
  EXPECT_EQ(threadCount(), before);
}

// One that has ended in time passes its time on to nobody.
TEST_F(WatchdogThreadTest, GivesEachQueryItsWholeLimit) {
  constexpr auto kLimit = 40ms;
  WatchdogThread thread(kLimit);
  for (int query = 0; query < 3; ++query) {
    {
      const QueryWatchdog quick(thread, [] {});
    }
    const auto begin = std::chrono::steady_clock::now();
    std::promise<void> called;
    const QueryWatchdog watchdog(thread, [&] { called.set_value(); });
    called.get_future().wait();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, kLimit);
  }
}

TEST_F(WatchdogThreadTest, EndsManyQueriesOneAfterAnother) {
  WatchdogThread thread(1ms);
  std::atomic<int> calls{0};
  for (int query = 1; query <= 50; ++query) {
    std::promise<void> called;
    QueryWatchdog watchdog(thread, [&] {
      ++calls;
      called.set_value();
    });
    called.get_future().wait();
    EXPECT_TRUE(watchdog.timedOut());
    EXPECT_EQ(calls, query);
  }
}

}  // namespace
}  // namespace zelta::test
