// Presence requests under parallel dispatch, with cancellation racing completion.
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "diagnostics/traced_lock.h"
#include "driver/status.h"
#include "tests/reader/scripted_reader.h"
#include "tests/support/fake_request.h"
#include "tests/support/log_capture.h"
#include "tests/support/repetitions.h"

namespace zelta {
namespace {

using test::FakeReaderDevice;
using test::FakeRequest;
using test::LogCapture;
using test::ScriptedReader;

// Completes what waits as an agent's event does.
void completeWaiting(ScriptedReader& reader, FakeReaderDevice& device, PendingRequests& list) {
  const TracedLock lock("test", device.deviceLock(), __LINE__);
  while (IoRequest* request = list.newest()) {
    request->addRef();
    if (framework::succeeded(request->unmarkCancelable())) {
      request->completeWithInformation(status::kSuccess, 0);
    }
    list.remove(request);
    request->release();
  }
  reader.setState(SCARD_SWALLOWED);
}

class PresenceRace : public testing::Test {
 protected:
  LogCapture log_;
  FakeReaderDevice device_;
  ScriptedReader reader_{device_};
};

// The requests' double fails the test where one is completed twice or touched afterwards.
TEST_F(PresenceRace, EveryRequestIsCompletedOnceWhileCancelAndEventRaceIt) {
  constexpr int kRounds = test::repetitions(2000);
  int cancelled = 0;
  for (int round = 0; round < kRounds; ++round) {
    log_.clear();
    const bool insert = round % 2 == 0;
    reader_.checkResult = insert ? QueryResult::Failure : QueryResult::Success;
    PendingRequests& list = insert ? reader_.pendingInsert_ : reader_.pendingRemove_;
    FakeRequest request(device_);
    std::thread canceller([&] { request.cancel(); });
    std::thread agent([&] {
      const platform::MutexLock presence(reader_.presenceMutex_);
      completeWaiting(reader_, device_, list);
    });
    if (insert) {
      reader_.IoSmartCardIsPresent(&request, 0, 0);
    } else {
      reader_.IoSmartCardIsAbsent(&request, 0, 0);
    }
    canceller.join();
    agent.join();
    ASSERT_TRUE(request.completed());  // a cancel is never lost
    if (request.status() != 0) ++cancelled;
    ASSERT_TRUE(list.empty());
  }
  EXPECT_GT(cancelled, 0);
}

TEST_F(PresenceRace, ParallelDispatchCompletesEveryRequestOnce) {
  constexpr int kThreads = 4;
  constexpr int kRequestsEach = test::repetitions(500);
  reader_.checkResult = QueryResult::Failure;
  std::vector<std::unique_ptr<FakeRequest>> requests;
  for (int i = 0; i < kThreads * kRequestsEach; ++i) {
    requests.push_back(std::make_unique<FakeRequest>(device_));
  }
  std::atomic<bool> dispatching{true};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kRequestsEach; ++i) {
        FakeRequest& request = *requests[static_cast<std::size_t>(thread * kRequestsEach + i)];
        reader_.IoSmartCardIsPresent(&request, 0, 0);
        if (i % 3 == 0) request.cancel();
      }
    });
  }
  std::thread agent([&] {
    while (dispatching) {
      platform::MutexLock lock(reader_.requestListMutex_);
      (void)reader_.insertRequestCondition_.waitFor(
          lock, std::chrono::milliseconds(10),
          [&]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return !reader_.pendingInsert_.empty(); });
      lock.unlock();
      completeWaiting(reader_, device_, reader_.pendingInsert_);
    }
  });
  for (std::thread& thread : threads) thread.join();
  dispatching = false;
  agent.join();
  completeWaiting(reader_, device_, reader_.pendingInsert_);
  for (const auto& request : requests) ASSERT_TRUE(request->completed());
}

// Events and checks of a card that comes and goes: whatever the order, a request that asks for
// what is already so does not wait for ever.
TEST_F(PresenceRace, EventBetweenCheckAndQueueingIsNotLost) {
  for (int round = 0; round < test::repetitions(1000); ++round) {
    log_.clear();
    reader_.checkResult = QueryResult::Failure;
    FakeRequest request(device_);
    std::thread agent([&] {
      reader_.checkResult = QueryResult::Success;  // the card comes ...
      const platform::MutexLock presence(reader_.presenceMutex_);
      completeWaiting(reader_, device_, reader_.pendingInsert_);  // ... and is reported
    });
    reader_.IoSmartCardIsPresent(&request, 0, 0);
    agent.join();
    ASSERT_TRUE(request.completed()) << "round " << round;
    ASSERT_EQ(request.status(), 0u);
  }
}

TEST_F(PresenceRace, EventWaitsForACheckUnderWayAndItsQueueing) {
  for (const bool insert : {true, false}) {
    reader_.checkResult = insert ? QueryResult::Failure : QueryResult::Success;
    PendingRequests& list = insert ? reader_.pendingInsert_ : reader_.pendingRemove_;
    FakeRequest request(device_);
    std::promise<void> entered;
    auto eventHandled = entered.get_future();
    std::thread agent;
    reader_.onCheck = [&] {
      agent = std::thread([&] {
        const platform::MutexLock presence(reader_.presenceMutex_);
        entered.set_value();
        completeWaiting(reader_, device_, list);
      });
      // Time for an event that nothing holds back.
      EXPECT_EQ(eventHandled.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    };
    if (insert) {
      reader_.IoSmartCardIsPresent(&request, 0, 0);
    } else {
      reader_.IoSmartCardIsAbsent(&request, 0, 0);
    }
    agent.join();
    EXPECT_EQ(request.status(), 0u);
  }
}

}  // namespace
}  // namespace zelta
