#include "agent_link/query_watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>

#include "tests/doubles/logging/log_capture.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;

TEST(QueryWatchdog, EmptyCallback_IsRefused) {
  WatchdogThread thread(1h);
  EXPECT_THAT([&] { QueryWatchdog(thread, nullptr); },
              testing::ThrowsMessage<std::runtime_error>("Callback is null"));
}

TEST(QueryWatchdog, StoppedInTime_CallsNobodyLaterEither) {
  const LogCapture log;
  std::atomic<int> calls{0};
  WatchdogThread thread(1s);
  {
    const QueryWatchdog watchdog(thread, [&] { ++calls; });
  }
  std::this_thread::sleep_for(1200ms);
  EXPECT_EQ(calls, 0);
  EXPECT_TRUE(log.records().empty());
}

TEST(QueryWatchdog, WhenTimeIsUp_LogsThenCallsOnce) {
  const LogCapture log;
  std::promise<std::vector<LogRecord>> atCall;
  std::atomic<int> calls{0};
  {
    WatchdogThread thread(1ms);
    QueryWatchdog watchdog(thread, [&] {
      ++calls;
      atCall.set_value(log.records());
    });
    const std::vector<LogRecord> before = atCall.get_future().get();
    EXPECT_EQ(before, std::vector<LogRecord>{error(kNoError, "Query timeout")});
    EXPECT_TRUE(watchdog.timedOut());
  }
  EXPECT_EQ(calls, 1);
}

TEST(QueryWatchdog, AskingDuringTheCallback_WaitsUntilItIsDone) {
  std::promise<void> begun;
  std::promise<void> asking;
  std::atomic<bool> done{false};
  WatchdogThread thread(1ms);
  QueryWatchdog watchdog(thread, [&] {
    begun.set_value();
    asking.get_future().wait();
    done = true;
  });
  begun.get_future().wait();
  std::thread asker([&] {
    asking.set_value();
    EXPECT_TRUE(watchdog.timedOut());
    EXPECT_TRUE(done) << "answered before the callback had ended";
  });
  asker.join();
}

TEST(QueryWatchdog, DestructionDuringTheCallback_WaitsUntilItIsDone) {
  std::promise<void> begun;
  std::promise<void> ending;
  std::atomic<bool> done{false};
  WatchdogThread thread(1ms);
  std::optional<QueryWatchdog> watchdog;
  watchdog.emplace(thread, [&] {
    begun.set_value();
    ending.get_future().wait();
    done = true;
  });
  begun.get_future().wait();
  ending.set_value();
  watchdog.reset();
  EXPECT_TRUE(done);
}

TEST(QueryWatchdog, StopThatRacesWithTheTimeOut_CallsAtMostOnce) {
  for (int round = 0; round < 300; ++round) {
    std::atomic<int> calls{0};
    bool timedOut = false;
    WatchdogThread thread(std::chrono::milliseconds(round % 2));
    {
      QueryWatchdog watchdog(thread, [&] { ++calls; });
      timedOut = watchdog.timedOut();
    }
    EXPECT_LE(calls, 1);
    EXPECT_GE(calls, timedOut ? 1 : 0);
  }
}

TEST(WatchdogThread, ManyQueries_AreEndedOneAfterAnotherByOneThread) {
  const LogCapture log;
  WatchdogThread thread(1ms);
  std::set<std::thread::id> threads;
  for (int query = 0; query < 50; ++query) {
    std::promise<std::thread::id> called;
    QueryWatchdog watchdog(thread, [&] { called.set_value(std::this_thread::get_id()); });
    threads.insert(called.get_future().get());
    EXPECT_TRUE(watchdog.timedOut());
  }
  EXPECT_EQ(threads.size(), 1u);
}

// A query that has ended in time does not use up the next one's time.
TEST(WatchdogThread, EachQuery_HasItsWholeLimit) {
  const LogCapture log;
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

}  // namespace
}  // namespace zelta::test
