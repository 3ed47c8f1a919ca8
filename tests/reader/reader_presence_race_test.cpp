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
    reader_.checkResult = insert ? QueryResult::Failure : QueryResult::Success;
    const CardEvent awaited = insert ? CardEvent::Inserted : CardEvent::Removed;
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
      platform::MutexLock lock(reader_.waiting().mutex());
      (void)reader_.waiting().awaitInsertionRequest(lock, std::chrono::milliseconds(10),
                                                    [] { return false; });
      lock.unlock();
      reader_.report(CardEvent::Inserted);
    }
  });
  for (std::thread& thread : threads) thread.join();
  dispatching = false;
  agent.join();
  reader_.report(CardEvent::Inserted);
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
      reader_.report(CardEvent::Inserted);         // ... and is reported
    });
    reader_.IoSmartCardIsPresent(&request, 0, 0);
    agent.join();
    ASSERT_TRUE(request.completed()) << "round " << round;
    ASSERT_EQ(request.status(), 0u);
  }
}

enum class Request { Present, Absent };
enum class Moment { BeforeTheQuestion, BeforeItWaits, WhileItWaits };
enum class Event { In, Out, AgentLost };
using Events = std::vector<Event>;
constexpr Event kIn = Event::In;
constexpr Event kOut = Event::Out;
constexpr Event kLost = Event::AgentLost;

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
      if (event == Event::AgentLost) {
        reader_.loseAgent();
      } else {
        reader_.report(event == Event::In ? CardEvent::Inserted : CardEvent::Removed);
      }
    }
  }
};

TEST_P(EventAndRequest, EndAsIfTheRequestHadWaitedSinceBeforeTheQuestion) {
  const Row& row = GetParam();
  const bool present = row.request == Request::Present;
  reader_.setState(SCARD_SPECIFIC);
  reader_.checkResult = present ? QueryResult::Failure : QueryResult::Success;
  reader_.onCheck = [this] { reportAt(Moment::BeforeItWaits); };
  FakeRequest request(device_);
  request.checkingLock();
  reportAt(Moment::BeforeTheQuestion);
  if (present) {
    reader_.IoSmartCardIsPresent(&request, 0, 0);
  } else {
    reader_.IoSmartCardIsAbsent(&request, 0, 0);
  }
  reportAt(Moment::WhileItWaits);
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
        Row{"PresentInsertedBefore", Request::Present, Moment::BeforeTheQuestion, {kIn}, false, 3},
        Row{"PresentInserted", Request::Present, Moment::BeforeItWaits, {kIn}, true, 3},
        Row{"PresentInsertedLater", Request::Present, Moment::WhileItWaits, {kIn}, true, 3},
        Row{"PresentRemovedBefore", Request::Present, Moment::BeforeTheQuestion, {kOut}, false, 6},
        Row{"PresentRemoved", Request::Present, Moment::BeforeItWaits, {kOut}, false, 6},
        Row{"PresentRemovedLater", Request::Present, Moment::WhileItWaits, {kOut}, false, 6},
        Row{"PresentInAndOut", Request::Present, Moment::BeforeItWaits, {kIn, kOut}, true, 3},
        Row{"PresentOutAndIn", Request::Present, Moment::BeforeItWaits, {kOut, kIn}, true, 3},
        Row{"PresentInAndLost", Request::Present, Moment::BeforeItWaits, {kIn, kLost}, false, 1},
        Row{"PresentLostAndIn", Request::Present, Moment::BeforeItWaits, {kLost, kIn}, true, 3},
        Row{"PresentLost", Request::Present, Moment::BeforeItWaits, {kLost}, false, 1},
        Row{"AbsentLost", Request::Absent, Moment::BeforeItWaits, {kLost}, true, 1},
        Row{"AbsentLostLater", Request::Absent, Moment::WhileItWaits, {kLost}, true, 1},
        Row{"AbsentLostAndIn", Request::Absent, Moment::BeforeItWaits, {kLost, kIn}, true, 3},
        Row{"AbsentInsertedBefore", Request::Absent, Moment::BeforeTheQuestion, {kIn}, false, 3},
        Row{"AbsentInserted", Request::Absent, Moment::BeforeItWaits, {kIn}, false, 3},
        Row{"AbsentInsertedLater", Request::Absent, Moment::WhileItWaits, {kIn}, false, 3},
        Row{"AbsentRemovedBefore", Request::Absent, Moment::BeforeTheQuestion, {kOut}, false, 6},
        Row{"AbsentRemoved", Request::Absent, Moment::BeforeItWaits, {kOut}, true, 1},
        Row{"AbsentRemovedLater", Request::Absent, Moment::WhileItWaits, {kOut}, true, 1},
        Row{"AbsentInAndOut", Request::Absent, Moment::BeforeItWaits, {kIn, kOut}, true, 1},
        Row{"AbsentOutAndIn", Request::Absent, Moment::BeforeItWaits, {kOut, kIn}, true, 3}),
    [](const auto& instance) { return instance.param.name; });

}  // namespace
}  // namespace zelta
