// Presence requests under parallel dispatch, with cancellation racing completion, and card events
// at every moment between the question and the waiting.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "contract/reader_states.h"
#include "tests/doubles/request/fake_request.h"
#include "tests/reader/scripted_reader.h"
#include "tests/support/log_capture.h"
#include "tests/support/repetitions.h"

namespace zelta {
namespace {

using test::FakeReaderDevice;
using test::FakeRequest;
using test::LogCapture;
using test::ScriptedReader;

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
    reader_.checkResult = insert ? QueryResult::kFailure : QueryResult::kSuccess;
    const CardEvent awaited = insert ? CardEvent::kInserted : CardEvent::kRemoved;
    FakeRequest request(device_);
    std::thread canceller([&] { request.cancel(); });
    std::thread agent([&] { reader_.report(awaited); });
    if (insert) {
      reader_.IoSmartCardIsPresent(&request, 0, 0);
    } else {
      reader_.IoSmartCardIsAbsent(&request, 0, 0);
    }
    canceller.join();
    agent.join();
    ASSERT_TRUE(request.completed());  // a cancel is never lost
    if (request.status() != 0) ++cancelled;
    ASSERT_FALSE(reader_.waiting().any(awaited));
  }
  EXPECT_GT(cancelled, 0);
}

TEST_F(PresenceRace, ParallelDispatchCompletesEveryRequestOnce) {
  constexpr int kThreads = 4;
  constexpr int kRequestsEach = test::repetitions(500);
  reader_.checkResult = QueryResult::kFailure;
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
      platform::MutexLock lock(reader_.waiting().mutex());
      (void)reader_.waiting().awaitInsertionRequest(lock, std::chrono::milliseconds(10),
                                                    [] { return false; });
      lock.unlock();
      reader_.report(CardEvent::kInserted);
    }
  });
  for (std::thread& thread : threads) thread.join();
  dispatching = false;
  agent.join();
  reader_.report(CardEvent::kInserted);
  for (const auto& request : requests) ASSERT_TRUE(request->completed());
}

// Events and checks of a card that comes and goes: whatever the order, a request that asks for
// what is already so does not wait for ever.
TEST_F(PresenceRace, EventBetweenCheckAndQueueingIsNotLost) {
  for (int round = 0; round < test::repetitions(1000); ++round) {
    log_.clear();
    reader_.checkResult = QueryResult::kFailure;
    FakeRequest request(device_);
    std::thread agent([&] {
      reader_.checkResult = QueryResult::kSuccess;  // the card comes ...
      reader_.report(CardEvent::kInserted);         // ... and is reported
    });
    reader_.IoSmartCardIsPresent(&request, 0, 0);
    agent.join();
    ASSERT_TRUE(request.completed()) << "round " << round;
    ASSERT_EQ(request.status(), 0u);
  }
}

enum class Request { kPresent, kAbsent };
enum class Moment { kBeforeTheQuestion, kBeforeItWaits, kWhileItWaits };
enum class Event { kIn, kOut, kAgentLost };
using Events = std::vector<Event>;
constexpr Event kIn = Event::kIn;
constexpr Event kOut = Event::kOut;
constexpr Event kLost = Event::kAgentLost;

// Events at a moment of a request that the answer lets wait. The state is "specific" before.
struct Row {
  const char* name;
  Request request;
  Moment moment;
  Events events;
  bool completed;
  std::uint32_t state;
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

class EventAndRequest : public PresenceRace, public testing::WithParamInterface<Row> {
 protected:
  void reportAt(Moment moment) {
    if (moment != GetParam().moment) return;
    for (const Event event : GetParam().events) {
      if (event == Event::kAgentLost) {
        reader_.loseAgent();
      } else {
        reader_.report(event == Event::kIn ? CardEvent::kInserted : CardEvent::kRemoved);
      }
    }
  }
};

TEST_P(EventAndRequest, EndAsIfTheRequestHadWaitedSinceBeforeTheQuestion) {
  const Row& row = GetParam();
  const bool present = row.request == Request::kPresent;
  reader_.setState(SCARD_SPECIFIC);
  reader_.checkResult = present ? QueryResult::kFailure : QueryResult::kSuccess;
  reader_.onCheck = [this] { reportAt(Moment::kBeforeItWaits); };
  FakeRequest request(device_);
  request.checkingLock();
  reportAt(Moment::kBeforeTheQuestion);
  if (present) {
    reader_.IoSmartCardIsPresent(&request, 0, 0);
  } else {
    reader_.IoSmartCardIsAbsent(&request, 0, 0);
  }
  reportAt(Moment::kWhileItWaits);
  EXPECT_EQ(request.completed(), row.completed);
  EXPECT_EQ(reader_.state(), row.state);
  if (row.completed) {
    EXPECT_EQ(request.status(), 0u);
    EXPECT_EQ(request.information(), 0u);
  } else {
    request.cancel();
  }
}

INSTANTIATE_TEST_SUITE_P(
    All, EventAndRequest,
    testing::Values(
        Row{"PresentInsertedBefore",
            Request::kPresent,
            Moment::kBeforeTheQuestion,
            {kIn},
            false,
            3},
        Row{"PresentInserted", Request::kPresent, Moment::kBeforeItWaits, {kIn}, true, 3},
        Row{"PresentInsertedLater", Request::kPresent, Moment::kWhileItWaits, {kIn}, true, 3},
        Row{"PresentRemovedBefore",
            Request::kPresent,
            Moment::kBeforeTheQuestion,
            {kOut},
            false,
            6},
        Row{"PresentRemoved", Request::kPresent, Moment::kBeforeItWaits, {kOut}, false, 6},
        Row{"PresentRemovedLater", Request::kPresent, Moment::kWhileItWaits, {kOut}, false, 6},
        Row{"PresentInAndOut", Request::kPresent, Moment::kBeforeItWaits, {kIn, kOut}, true, 3},
        Row{"PresentOutAndIn", Request::kPresent, Moment::kBeforeItWaits, {kOut, kIn}, true, 3},
        Row{"PresentInAndLost", Request::kPresent, Moment::kBeforeItWaits, {kIn, kLost}, false, 1},
        Row{"PresentLostAndIn", Request::kPresent, Moment::kBeforeItWaits, {kLost, kIn}, true, 3},
        Row{"PresentLost", Request::kPresent, Moment::kBeforeItWaits, {kLost}, false, 1},
        Row{"AbsentLost", Request::kAbsent, Moment::kBeforeItWaits, {kLost}, true, 1},
        Row{"AbsentLostLater", Request::kAbsent, Moment::kWhileItWaits, {kLost}, true, 1},
        Row{"AbsentLostAndIn", Request::kAbsent, Moment::kBeforeItWaits, {kLost, kIn}, true, 3},
        Row{"AbsentInsertedBefore", Request::kAbsent, Moment::kBeforeTheQuestion, {kIn}, false, 3},
        Row{"AbsentInserted", Request::kAbsent, Moment::kBeforeItWaits, {kIn}, false, 3},
        Row{"AbsentInsertedLater", Request::kAbsent, Moment::kWhileItWaits, {kIn}, false, 3},
        Row{"AbsentRemovedBefore", Request::kAbsent, Moment::kBeforeTheQuestion, {kOut}, false, 6},
        Row{"AbsentRemoved", Request::kAbsent, Moment::kBeforeItWaits, {kOut}, true, 1},
        Row{"AbsentRemovedLater", Request::kAbsent, Moment::kWhileItWaits, {kOut}, true, 1},
        Row{"AbsentInAndOut", Request::kAbsent, Moment::kBeforeItWaits, {kIn, kOut}, true, 1},
        Row{"AbsentOutAndIn", Request::kAbsent, Moment::kBeforeItWaits, {kOut, kIn}, true, 3}),
    [](const auto& instance) { return instance.param.name; });

}  // namespace
}  // namespace zelta
