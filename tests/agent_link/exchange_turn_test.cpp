#include "agent_link/exchange_turn.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <optional>
#include <thread>

namespace zelta::test {
namespace {

using namespace std::chrono_literals;

constexpr auto kLong = 10min;

const auto kNobodyToEnd = [] { return false; };

class ExchangeTurnTest : public ::testing::Test {
 protected:
  void take() {
    ASSERT_TRUE(turn_.take(kLong, kNobodyToEnd));
    held_.emplace(turn_);
  }
  void giveUp() { held_.reset(); }

  ExchangeTurn turn_;
  std::optional<ExchangeTurn::Holder> held_;
};

TEST_F(ExchangeTurnTest, HeldByAnother_IsWaitedFor) {
  take();
  std::atomic<bool> gaveUp{false};
  auto other = std::async(std::launch::async, [&] {
    const bool mine = turn_.take(kLong, kNobodyToEnd);
    EXPECT_TRUE(gaveUp);
    return mine;
  });
  gaveUp = true;
  giveUp();
  EXPECT_TRUE(other.get());
}

TEST_F(ExchangeTurnTest, GivenUpByARequest_IsPassedOnWhenTheRequestEnds) {
  std::optional<ExchangeTurn::RequestScope> request(std::in_place);
  take();
  giveUp();
  std::promise<bool> early;
  auto other = std::async(std::launch::async, [&] {
    early.set_value(turn_.take(1ms, kNobodyToEnd));
    return turn_.take(kLong, kNobodyToEnd);
  });
  EXPECT_FALSE(early.get_future().get());
  request.reset();
  EXPECT_TRUE(other.get());
}

TEST_F(ExchangeTurnTest, RequestThatTakesAnotherTurn_PassesTheFirstOn) {
  const ExchangeTurn::RequestScope request;
  const ExchangeTurn::RequestScope inside;
  for (int round = 0; round < 2; ++round) {
    take();
    giveUp();
  }
}

TEST_F(ExchangeTurnTest, RequestThatHasWaitedItsLimitAlready_TakesOnlyAFreeTurn) {
  take();
  const ExchangeTurn::RequestScope request(ExchangeTurn::Clock::now() - kLong);
  EXPECT_FALSE(turn_.take(kLong, kNobodyToEnd));
  giveUp();
  EXPECT_TRUE(turn_.take(kLong, kNobodyToEnd));
}

// The next exchange of a request, a notification for example, has its own limit.
TEST_F(ExchangeTurnTest, RequestThatTakesAnotherTurn_WaitsForItAnew) {
  const ExchangeTurn::RequestScope request(ExchangeTurn::Clock::now() - kLong);
  take();
  giveUp();
  auto other = std::async(std::launch::async, [&] {
    EXPECT_TRUE(turn_.take(kLong, kNobodyToEnd));
    const ExchangeTurn::Holder held(turn_);
    std::this_thread::sleep_for(10ms);
  });
  std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(turn_.take(kLong, kNobodyToEnd));
}

TEST_F(ExchangeTurnTest, NotGivenUpInTime_IsNotTaken) {
  take();
  bool asked = false;
  EXPECT_FALSE(turn_.take(1ms, [&] {
    asked = true;
    return false;
  }));
  EXPECT_TRUE(asked);
  giveUp();
  take();  // a thread that gave up is no longer in the order
}

TEST_F(ExchangeTurnTest, HolderIsEnded_IsTaken) {
  take();
  std::thread holder;
  EXPECT_TRUE(turn_.take(1ms, [&] {
    holder = std::thread([this] { giveUp(); });
    return true;
  }));
  holder.join();
}

TEST_F(ExchangeTurnTest, HolderDoesNotEndInTime_IsNotTaken) {
  take();
  EXPECT_FALSE(turn_.take(1ms, [] { return true; }));
}

// The first one gets it, and the other does not wait for that one as well.
TEST_F(ExchangeTurnTest, HolderIsEnded_TheNextInTheOrderHasIt) {
  take();
  std::promise<void> firstWaits;
  std::promise<void> ended;
  auto first = std::async(std::launch::async, [&] {
    return turn_.take(1ms, [&] {
      firstWaits.set_value();
      ended.get_future().wait();
      return true;
    });
  });
  firstWaits.get_future().wait();
  EXPECT_FALSE(turn_.take(1ms, [&] {
    giveUp();
    ended.set_value();
    return true;
  }));
  EXPECT_TRUE(first.get());
}

TEST_F(ExchangeTurnTest, TakenOnManyThreads_IsNeverTwoThreadsAtOnce) {
  std::atomic<int> inside{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        // Some give up waiting.
        const auto limit = i % 3 == 0 ? std::chrono::microseconds(0) : 10s;
        if (!turn_.take(std::chrono::duration_cast<std::chrono::milliseconds>(limit),
                        kNobodyToEnd)) {
          continue;
        }
        const ExchangeTurn::Holder holder(turn_);
        EXPECT_EQ(++inside, 1);
        --inside;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  take();
}

}  // namespace
}  // namespace zelta::test
