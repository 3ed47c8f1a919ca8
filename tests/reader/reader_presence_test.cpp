#include <thread>

#include "tests/reader/reader_fixture.h"
#include "tests/support/repetitions.h"

namespace zelta::test {
namespace {

using testing::ElementsAre;

class Presence : public ReaderFixture {
 protected:
  static constexpr Handler kIsPresent = &Reader::IoSmartCardIsPresent;
  static constexpr Handler kIsAbsent = &Reader::IoSmartCardIsAbsent;

  void cancelDirectly(FakeRequest& request) {
    const TracedLock lock("test", device_.deviceLock(), __LINE__);
    reader_.IoCancelRequest(&request);
  }
  bool waitsFor(CardEvent event) { return reader_.waiting().any(event); }
  bool anyWaits() { return waitsFor(CardEvent::kInserted) || waitsFor(CardEvent::kRemoved); }
};

TEST_F(Presence, RequestForWhatIsSo_CompletesAtOnce) {
  EXPECT_EQ(ask(kIsPresent, std::nullopt), answered({}));
  EXPECT_THAT(log_.records(), ElementsAre(info("[IPRE]IOCTL_SMARTCARD_IS_PRESENT")));
  for (const QueryResult result : {QueryResult::kFailure, QueryResult::kTimeout}) {
    reader_.checkResult = result;
    EXPECT_EQ(ask(kIsAbsent, std::nullopt), answered({}));
    EXPECT_THAT(log_.records(), ElementsAre(info("[IABS]IOCTL_SMARTCARD_IS_ABSENT")));
  }
  EXPECT_EQ(reader_.checks, 3);
  EXPECT_FALSE(anyWaits());
}

// A request that has to wait, and the texts of its log.
struct WaitRow {
  bool present;
  QueryResult check;
  const char *begin, *cancel, *noCallback;
};

class WaitingRequest : public Presence, public testing::WithParamInterface<WaitRow> {
 protected:
  WaitingRequest() { reader_.checkResult = GetParam().check; }
  void ask(FakeRequest& request) { run(GetParam().present ? kIsPresent : kIsAbsent, request); }
  const CardEvent awaited_ = GetParam().present ? CardEvent::kInserted : CardEvent::kRemoved;
  const CardEvent other_ = GetParam().present ? CardEvent::kRemoved : CardEvent::kInserted;
};

TEST_P(WaitingRequest, IsMarkedCancelableAndEndsCancelled) {
  FakeRequest request(device_);
  ask(request.checkingLock());
  EXPECT_FALSE(request.completed());
  EXPECT_TRUE(request.markedCancelable());
  EXPECT_TRUE(waitsFor(awaited_));
  EXPECT_FALSE(waitsFor(other_));
  EXPECT_EQ(device_.callbackReferences(), 0);
  request.cancel();
  EXPECT_EQ(request.status(), kCancelled);
  EXPECT_EQ(request.information(), 0u);
  EXPECT_FALSE(anyWaits());
  EXPECT_THAT(log_.records(), ElementsAre(info(GetParam().begin), info(GetParam().cancel)));
}

TEST_P(WaitingRequest, WithoutACallback_WaitsUncancelable) {
  device_.setQueryResult(framework::kNoInterface);
  FakeRequest request(device_);
  ask(request);
  EXPECT_FALSE(request.completed());
  EXPECT_FALSE(request.markedCancelable());
  EXPECT_TRUE(waitsFor(awaited_));
  EXPECT_THAT(log_.errors(), ElementsAre(error(0x80004002, GetParam().noCallback)));
  cancelDirectly(request);
}

TEST_P(WaitingRequest, CancelledBeforeItIsMarked_IsCompletedWhileItIsMarked) {
  FakeRequest request(device_);
  request.cancel();
  EXPECT_FALSE(request.completed());
  ask(request);
  EXPECT_EQ(request.status(), kCancelled);
  EXPECT_FALSE(anyWaits());
}

TEST_P(WaitingRequest, ToldToStopWaiting_LeavesItsListUncompleted) {
  FakeRequest request(device_);
  ask(request);
  const auto stopWaiting = [&] {
    const TracedLock lock("test", device_.deviceLock(), __LINE__);
    return reader_.stopWaiting(request);
  };
  EXPECT_TRUE(stopWaiting());
  EXPECT_FALSE(request.completed());
  EXPECT_FALSE(anyWaits());
  EXPECT_FALSE(stopWaiting());
  request.cancel();
}

constexpr char kPresentBegin[] = "[IPRE]IOCTL_SMARTCARD_IS_PRESENT";
constexpr char kPresentNoCallback[] = "[IPRE]IOCTL_SMARTCARD_IS_PRESENT: invalid callback";

INSTANTIATE_TEST_SUITE_P(
    All, WaitingRequest,
    testing::Values(WaitRow{true, QueryResult::kFailure, kPresentBegin, "[CREQ]Cancel Insert",
                            kPresentNoCallback},
                    WaitRow{true, QueryResult::kTimeout, kPresentBegin, "[CREQ]Cancel Insert",
                            kPresentNoCallback},
                    WaitRow{false, QueryResult::kSuccess, "[IABS]IOCTL_SMARTCARD_IS_ABSENT",
                            "[CREQ]Cancel Remove",
                            "[IABS]IOCTL_SMARTCARD_IS_ABSENT: invalid callback!"}),
    [](const auto& each) {
      if (!each.param.present) return "Absent";
      return each.param.check == QueryResult::kTimeout ? "PresentAfterATimeOut" : "Present";
    });

TEST_F(Presence, CancellingWhatIsInNoList_CompletesItAndLogsNothing) {
  FakeRequest request(device_);
  cancelDirectly(request.checkingLock());
  EXPECT_EQ(request.status(), kCancelled);
  EXPECT_EQ(request.information(), 0u);
  EXPECT_TRUE(log_.records().empty());
}

TEST_F(Presence, CancellingWhatIsInBothLists_TakesItOutOfBoth) {
  FakeRequest request(device_);
  {
    const TracedLock lock("test", reader_.waiting().deviceLock(), __LINE__);
    reader_.waiting().add(CardEvent::kRemoved, request);
    reader_.waiting().add(CardEvent::kInserted, request);
  }
  cancelDirectly(request);
  EXPECT_FALSE(anyWaits());
  EXPECT_THAT(log_.records(),
              ElementsAre(info("[CREQ]Cancel Remove"), info("[CREQ]Cancel Insert")));
}

TEST_F(Presence, AgentIsAskedWithTheDeviceLockFree) {
  reader_.onCheck = [this] { EXPECT_FALSE(device_.lockIsHeld()); };
  FakeRequest present(device_);
  run(kIsPresent, present);
  FakeRequest absent(device_);
  run(kIsAbsent, absent);
  EXPECT_EQ(reader_.checks, 2);
  absent.cancel();
}

TEST_F(Presence, CheckThatThrows_LeavesTheRequestToTheCallerAndTheLocksFree) {
  reader_.onCheck = [] { throw std::bad_alloc(); };
  FakeRequest request(device_);
  EXPECT_THROW(run(kIsPresent, request), std::bad_alloc);
  EXPECT_THROW(run(kIsAbsent, request), std::bad_alloc);
  EXPECT_FALSE(request.completed());
  EXPECT_FALSE(anyWaits());
  reader_.onCheck = nullptr;
  run(kIsPresent, request);  // would wait for ever if a lock was left held
  EXPECT_EQ(request.status(), 0u);
}

// A card event meets a request that must wait by the agent's answer.
enum class Ask { kPresent, kAbsent };
enum class Moment { kBefore, kMeanwhile, kLater };  // the question, until it waits, while it waits
enum class Event { kIn, kOut, kLost };
constexpr Ask kPresent = Ask::kPresent;
constexpr Ask kAbsent = Ask::kAbsent;
constexpr Moment kBefore = Moment::kBefore;
constexpr Moment kMeanwhile = Moment::kMeanwhile;
constexpr Moment kLater = Moment::kLater;
constexpr Event kIn = Event::kIn;
constexpr Event kOut = Event::kOut;
constexpr Event kLost = Event::kLost;

// The state is "specific" before.
struct EventRow {
  const char* name;
  Ask ask;
  Moment moment;
  std::vector<Event> events;
  bool completed;
  std::uint32_t state;
};

class EventAndRequest : public Presence, public testing::WithParamInterface<EventRow> {
 protected:
  void reportAt(Moment moment) {
    if (moment != GetParam().moment) return;
    for (const Event event : GetParam().events) {
      if (event == kLost) {
        reader_.loseAgent();
      } else {
        reader_.report(event == kIn ? CardEvent::kInserted : CardEvent::kRemoved);
      }
    }
  }
};

TEST_P(EventAndRequest, EndAsIfTheRequestHadWaitedSinceBeforeTheQuestion) {
  const EventRow& row = GetParam();
  const bool present = row.ask == kPresent;
  reader_.setState(SCARD_SPECIFIC);
  reader_.checkResult = present ? QueryResult::kFailure : QueryResult::kSuccess;
  reader_.onCheck = [this] { reportAt(kMeanwhile); };
  FakeRequest request(device_);
  request.checkingLock();
  reportAt(kBefore);
  run(present ? kIsPresent : kIsAbsent, request);
  reportAt(kLater);
  ASSERT_EQ(request.completed(), row.completed);
  EXPECT_EQ(reader_.state(), row.state);
  request.cancel();
  EXPECT_EQ(request.status(), row.completed ? 0u : kCancelled);
  EXPECT_EQ(request.information(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    All, EventAndRequest,
    testing::Values(EventRow{"PresentInsertedBefore", kPresent, kBefore, {kIn}, false, 3},
                    EventRow{"PresentInserted", kPresent, kMeanwhile, {kIn}, true, 3},
                    EventRow{"PresentInsertedLater", kPresent, kLater, {kIn}, true, 3},
                    EventRow{"PresentRemovedBefore", kPresent, kBefore, {kOut}, false, 6},
                    EventRow{"PresentRemoved", kPresent, kMeanwhile, {kOut}, false, 6},
                    EventRow{"PresentRemovedLater", kPresent, kLater, {kOut}, false, 6},
                    EventRow{"PresentInAndOut", kPresent, kMeanwhile, {kIn, kOut}, true, 3},
                    EventRow{"PresentOutAndIn", kPresent, kMeanwhile, {kOut, kIn}, true, 3},
                    EventRow{"PresentInAndLost", kPresent, kMeanwhile, {kIn, kLost}, false, 1},
                    EventRow{"PresentLostAndIn", kPresent, kMeanwhile, {kLost, kIn}, true, 3},
                    EventRow{"PresentLost", kPresent, kMeanwhile, {kLost}, false, 1},
                    EventRow{"AbsentLost", kAbsent, kMeanwhile, {kLost}, true, 1},
                    EventRow{"AbsentLostLater", kAbsent, kLater, {kLost}, true, 1},
                    EventRow{"AbsentLostAndIn", kAbsent, kMeanwhile, {kLost, kIn}, true, 3},
                    EventRow{"AbsentInsertedBefore", kAbsent, kBefore, {kIn}, false, 3},
                    EventRow{"AbsentInserted", kAbsent, kMeanwhile, {kIn}, false, 3},
                    EventRow{"AbsentInsertedLater", kAbsent, kLater, {kIn}, false, 3},
                    EventRow{"AbsentRemovedBefore", kAbsent, kBefore, {kOut}, false, 6},
                    EventRow{"AbsentRemoved", kAbsent, kMeanwhile, {kOut}, true, 1},
                    EventRow{"AbsentRemovedLater", kAbsent, kLater, {kOut}, true, 1},
                    EventRow{"AbsentInAndOut", kAbsent, kMeanwhile, {kIn, kOut}, true, 1},
                    EventRow{"AbsentOutAndIn", kAbsent, kMeanwhile, {kOut, kIn}, true, 3}),
    [](const auto& instance) { return instance.param.name; });

// The request's double fails the test if a request is completed twice or touched afterwards.
TEST_F(Presence, CancelAndEventAtOnce_CompleteEveryRequestOnce) {
  int cancelled = 0;
  for (int round = 0; round < repetitions(2000); ++round) {
    log_.clear();
    const bool insert = round % 2 == 0;
    reader_.checkResult = insert ? QueryResult::kFailure : QueryResult::kSuccess;
    const CardEvent awaited = insert ? CardEvent::kInserted : CardEvent::kRemoved;
    FakeRequest request(device_);
    std::thread canceller([&] { request.cancel(); });
    std::thread agent([&] { reader_.report(awaited); });
    run(insert ? kIsPresent : kIsAbsent, request);
    canceller.join();
    agent.join();
    ASSERT_TRUE(request.completed());  // a cancel is never lost
    if (request.status() != 0) ++cancelled;
    ASSERT_FALSE(waitsFor(awaited));
  }
  EXPECT_GT(cancelled, 0);
}

}  // namespace
}  // namespace zelta::test
