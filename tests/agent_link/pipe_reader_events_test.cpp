// The reader's state and its waiting requests when the agent reports a card or is lost, or the
// reader is shut down. On the system's pipes.
#include "agent_link/pipe_reader.h"

#include <future>

#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/wire.h"
#include "tests/agent_link/events_test.h"
#include "tests/doubles/pipes/gap_pipes.h"
#include "tests/support/repetitions.h"

namespace zelta::test {
namespace {

using Order = std::vector<const IoRequest*>;

class CardEvents : public EventsTest {
 protected:
  // Expects all to be completed with the status and no output, in this order, after `before`
  // others.
  void expectCompleted(const Order& requests, std::uint32_t status, std::size_t before = 0) {
    const Order completed = device_.completed();
    ASSERT_EQ(completed.size(), before + requests.size());
    EXPECT_TRUE(std::equal(requests.begin(), requests.end(), completed.begin() + before));
    for (const IoRequest* request : requests) {
      EXPECT_EQ(static_cast<const FakeRequest*>(request)->status(), status);
      EXPECT_EQ(static_cast<const FakeRequest*>(request)->information(), 0u);
    }
  }
};

TEST_F(CardEvents, CardThatIsInAtTheConnection_CompletesTheInsertion) {
  connectWithCard();
  ASSERT_EQ(device_.completed().size(), 1u);
  EXPECT_EQ(reader().state(), SCARD_SWALLOWED);
  EXPECT_EQ(agent_.commands(AgentCommand::kQueryAtrReset), 1);
}

TEST_F(CardEvents, Insertion_CompletesEveryWaitingRequestNewestFirst) {
  FakeRequest& first = connectWithoutCard();
  FakeRequest& second = waitForInsertion();
  log_.clear();
  setCard(true);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
  ASSERT_TRUE(first.waitCompleted());
  expectCompleted({&second, &first}, kSucceeded);
  settle();
  EXPECT_EQ(reader().state(), SCARD_SWALLOWED);
  std::vector<LogRecord> records = log_.records();
  ASSERT_GE(records.size(), 4u);
  records.resize(4);
  EXPECT_EQ(records, (std::vector<LogRecord>{debug("Event received"), info("Card inserted"),
                                             info("Initializing protocols..."),
                                             info("[QueryATR]ATR:3B00")}));
}

TEST_F(CardEvents, InsertionWithoutAnAtr_CompletesTheRequestsAllTheSame) {
  FakeRequest& request = connectWithoutCard();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
  ASSERT_TRUE(request.waitCompleted());
  EXPECT_EQ(request.status(), kSucceeded);
  settle();
  EXPECT_EQ(reader().state(), SCARD_SWALLOWED);
}

TEST_F(CardEvents, InsertionWithNobodyWaiting_SetsTheState) {
  FakeRequest& request = connectWithoutCard();
  request.cancel();
  ASSERT_EQ(request.status(), kCancelled);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
  settle();
  EXPECT_EQ(reader().state(), SCARD_SWALLOWED);
}

TEST_F(CardEvents, Removal_CompletesEveryWaitingRequestNewestFirst) {
  connectWithCard();
  FakeRequest& first = waitForRemoval();
  FakeRequest& second = waitForRemoval();
  log_.clear();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  ASSERT_TRUE(first.waitCompleted());
  expectCompleted({&second, &first}, kSucceeded, 1);
  EXPECT_EQ(reader().state(), SCARD_ABSENT);
  EXPECT_TRUE(log_.contains(info("Card removed")));
}

TEST_F(CardEvents, RemovalWithNobodyWaiting_LeavesTheState) {
  connectWithCard();
  FakeRequest& reset = makeRequest(number(SCARD_COLD_RESET));
  reader().IoSmartCardPower(&reset, 4, 64);
  ASSERT_EQ(reader().state(), SCARD_NEGOTIABLE);
  ASSERT_EQ(CardReady::of(reader()), 1u);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  settle();
  EXPECT_EQ(reader().state(), SCARD_NEGOTIABLE);
  EXPECT_EQ(CardReady::of(reader()), 0u);
  EXPECT_EQ(log_.sessionIds(), std::vector<std::string>{"00000000-0000-0000-0000-000000000000"});
}

// A caller that is told of the removal may ask for the state at once.
TEST_F(CardEvents, Removal_SetsTheStateBeforeItCompletesTheRequests) {
  connectWithCard();
  FakeRequest& request = waitForRemoval();
  std::atomic<std::uint32_t> state{SCARD_SWALLOWED};
  device_.onCompletion = [&] { state = reader().state(); };
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  ASSERT_TRUE(request.waitCompleted());
  EXPECT_EQ(state, SCARD_ABSENT);
}

TEST_F(CardEvents, Removal_DoesNotCompleteInsertions) {
  FakeRequest& request = connectWithoutCard();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  settle();
  EXPECT_FALSE(request.completed());
}

// The event is being handled before the check is answered: it is not lost between the two.
TEST_F(CardEvents, InsertionBetweenCheckAndWait_IsNotLost) {
  start();
  FakeRequest& first = waitForInsertion();
  std::atomic<bool> report{false};
  ASSERT_TRUE(agent_.connect([&](const CardAgent::Command& command) {
    if (command.code == AgentCommand::kQueryAtr && report) {
      const std::size_t before = log_.count("Card inserted");
      EXPECT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
      EXPECT_TRUE(waitForCount("Card inserted", before + 1));
    }
    return Bytes{};
  }));
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  report = true;
  for (int round = 0; round < repetitions(50); ++round) {
    FakeRequest& request = makeRequest();
    reader().IoSmartCardIsPresent(&request, 0, 0);
    ASSERT_TRUE(request.waitCompleted()) << "lost in round " << round;
    EXPECT_EQ(request.status(), kSucceeded);
    EXPECT_EQ(reader().state(), SCARD_SWALLOWED);
  }
  EXPECT_TRUE(first.completed());
}

// The check has failed for lack of an agent, and the card of the agent that connects is not an
// event.
TEST_F(CardEvents, ConnectionBetweenCheckAndWait_IsNotLost) {
  setCard(true);
  start();
  FakeRequest& first = waitForInsertion();
  std::atomic<bool> connected{false};
  device_.onLock = [&] {
    if (connected.exchange(true)) return;
    EXPECT_TRUE(agent_.connect(answer()));
    EXPECT_TRUE(first.waitCompleted());
  };
  FakeRequest& request = makeRequest();
  reader().IoSmartCardIsPresent(&request, 0, 0);
  ASSERT_TRUE(request.waitCompleted());
  EXPECT_EQ(request.status(), kSucceeded);
  stop();
}

// The event has been handled before the check is answered.
TEST_F(CardEvents, RemovalBetweenCheckAndWait_IsNotLost) {
  setCard(true);
  start();
  FakeRequest& first = waitForInsertion();
  ASSERT_TRUE(agent_.connect([&](const CardAgent::Command& command) {
    if (command.code == AgentCommand::kQueryAtr) {
      EXPECT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
      settle();
    }
    return kAtr;
  }));
  ASSERT_TRUE(first.waitCompleted());
  for (int round = 0; round < repetitions(50); ++round) {
    FakeRequest& request = makeRequest();
    reader().IoSmartCardIsAbsent(&request, 0, 0);
    ASSERT_TRUE(request.waitCompleted()) << "lost in round " << round;
    EXPECT_EQ(request.status(), kSucceeded);
    EXPECT_EQ(reader().state(), SCARD_ABSENT);
  }
}

TEST_F(CardEvents, RemovalDuringTransmit_Answers6901) {
  std::atomic<FakeRequest*> removal{nullptr};
  setCard(true);
  start();
  FakeRequest& insertion = waitForInsertion();
  ASSERT_TRUE(agent_.connect([&](const CardAgent::Command& command) {
    if (command.code != AgentCommand::kQueryTransmit) return kAtr;
    EXPECT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
    EXPECT_TRUE(removal.load()->waitCompleted());
    return Bytes{};
  }));
  ASSERT_TRUE(insertion.waitCompleted());
  removal = &waitForRemoval();
  Bytes response;
  EXPECT_EQ(queryTransmit({0, 1, 2, 3}, response), QueryResult::kSuccess);
  EXPECT_EQ(response, (Bytes{0x69, 0x01}));
}

// The transmit has the turn, so the removal request has to wait for its own.
TEST_F(CardEvents, RemovalDuringTransmitBeforeTheCheck_Answers6901) {
  FakeRequest& removal = makeRequest();
  std::future<void> asking;
  setCard(true);
  start();
  FakeRequest& insertion = waitForInsertion();
  ASSERT_TRUE(agent_.connect([&](const CardAgent::Command& command) {
    if (command.code != AgentCommand::kQueryTransmit) return kAtr;
    asking = std::async(std::launch::async, [&] { reader().IoSmartCardIsAbsent(&removal, 0, 0); });
    EXPECT_TRUE(log_.waitFor("[IABS]IOCTL_SMARTCARD_IS_ABSENT"));
    EXPECT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
    settle();
    return Bytes{};
  }));
  ASSERT_TRUE(insertion.waitCompleted());
  Bytes response;
  EXPECT_EQ(queryTransmit({0, 1, 2, 3}, response), QueryResult::kSuccess);
  EXPECT_EQ(response, (Bytes{0x69, 0x01}));
  asking.get();
  EXPECT_EQ(removal.status(), kSucceeded);
}

TEST_F(CardEvents, LossOfTheAgent_CancelsInsertionsAndSetsAbsent) {
  FakeRequest& request = connectWithoutCard();
  makeCardPresent();
  log_.clear();
  agent_.events().close();
  ASSERT_TRUE(request.waitCompleted());
  EXPECT_EQ(request.status(), kCancelled);
  EXPECT_EQ(reader().state(), SCARD_ABSENT);
  EXPECT_EQ(log_.records().front(), error(kBroken, "Event named pipe read error"));
}

TEST_F(CardEvents, LossOfTheAgent_FulfilsRemovals) {
  connectWithCard();
  FakeRequest& request = waitForRemoval();
  agent_.die();
  ASSERT_TRUE(request.waitCompleted());
  EXPECT_EQ(request.status(), kSucceeded);
  EXPECT_EQ(reader().state(), SCARD_ABSENT);
  EXPECT_EQ(CardReady::of(reader()), 0u);
}

class LossOfTheEventPipe : public CardEvents {
 protected:
  ~LossOfTheEventPipe() override { stop(); }

  GapPipes pipes_{*platform::ports().pipes};
  const ScopedPipes inPlace_{pipes_};
};

// The event pipe's client is dropped before the command pipe's, on which the agent still answers.
TEST_F(LossOfTheEventPipe, BetweenCheckAndWait_FulfilsTheRemoval) {
  connectWithCard();
  FakeRequest& request = makeRequest();
  pipes_.holdNext(GapPipes::Call::kDisconnect, "event0");
  agent_.events().close();
  ASSERT_TRUE(pipes_.waitUntilHeld());
  auto handler =
      std::async(std::launch::async, [&] { reader().IoSmartCardIsAbsent(&request, 0, 0); });
  EXPECT_TRUE(log_.waitFor("[CheckATR]ATR:3B00"));
  pipes_.letGo();
  EXPECT_TRUE(request.waitCompleted()) << "waits for the removal of a card that nobody has";
  EXPECT_EQ(request.status(), kSucceeded);
}

TEST_F(CardEvents, Shutdown_CancelsRemovalsThenInsertionsNewestFirst) {
  FakeRequest& insertion1 = connectWithoutCard();
  FakeRequest& insertion2 = waitForInsertion();
  setCard(true);
  FakeRequest& removal1 = waitForRemoval();
  FakeRequest& removal2 = waitForRemoval();
  reader().shutdown();
  EXPECT_EQ(device_.completed(), (Order{&removal2, &removal1, &insertion2, &insertion1}));
  for (FakeRequest* request : {&insertion1, &insertion2, &removal1, &removal2}) {
    EXPECT_EQ(request->status(), kCancelled);
    EXPECT_EQ(request->information(), std::nullopt);
  }
  EXPECT_EQ(reader().state(), SCARD_ABSENT);
}

// Other threads get the lock in between.
TEST_F(CardEvents, Shutdown_TakesTheDeviceLockForEachRequest) {
  connectWithoutCard();
  waitForInsertion();
  waitForInsertion();
  int holds = 0;
  device_.onLock = [&holds] { ++holds; };
  reader().shutdown();
  device_.onLock = nullptr;
  EXPECT_EQ(holds, 3);
}

TEST_F(CardEvents, Shutdown_LeavesARequestThatIsBeingCancelledToItsCallback) {
  FakeRequest& request = connectWithoutCard();
  request.beginCancel();
  reader().shutdown();
  EXPECT_FALSE(request.completed());
}

TEST_F(CardEvents, Shutdown_LeavesPipesAndThreadRunning) {
  connectWithoutCard();
  reader().shutdown();
  settle();
  EXPECT_EQ(reader().CheckATR(), QueryResult::kFailure);
  EXPECT_GE(agent_.commands(AgentCommand::kQueryAtr), 1);
}

// The log says why the reader waits for the device lock. The test holds the lock and then causes an
// event that needs it.
class ContendedLock : public EventsTest {
 protected:
  // `cause` returns although the lock is held.
  template <typename Cause>
  void expectWait(const std::string& function, Cause cause) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    log_.clear();
    device_.deviceLock().enter();
    cause();
    EXPECT_TRUE(waitForBeginning("Locking: Function:PipeReader::" + function + ", Line:"));
    device_.deviceLock().leave();
  }
};

TEST_F(ContendedLock, CardReportedIn_IsWaitedForByHandleEvent) {
  FakeRequest& insertion = connectWithoutCard();
  expectWait("handleEvent", [this] { EXPECT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted)); });
  EXPECT_TRUE(insertion.waitCompleted());
}

TEST_F(ContendedLock, ConnectionWithACard_IsWaitedForByTheInsertionRequests) {
  start();
  FakeRequest& insertion = waitForInsertion();
  setCard(true);
  expectWait("unmarkAndCompleteInsertIrps", [this] { EXPECT_TRUE(agent_.connect(answer())); });
  EXPECT_TRUE(insertion.waitCompleted());
}

TEST_F(ContendedLock, CardReportedOut_IsWaitedForByHandleEvent) {
  connectWithCard();
  FakeRequest& removal = waitForRemoval();
  expectWait("handleEvent", [this] { EXPECT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved)); });
  EXPECT_TRUE(removal.waitCompleted());
}

TEST_F(ContendedLock, LossOfTheAgent_IsWaitedForByHandleEventPipeError) {
  FakeRequest& insertion = connectWithoutCard();
  expectWait("handleEventPipeError", [this] { agent_.events().close(); });
  EXPECT_TRUE(insertion.waitCompleted());
}

TEST_F(ContendedLock, Shutdown_IsWaitedForByShutdown) {
  FakeRequest& insertion = connectWithoutCard();
  std::future<void> down;
  expectWait("shutdown",
             [&] { down = std::async(std::launch::async, [this] { reader().shutdown(); }); });
  down.get();
  EXPECT_TRUE(insertion.completed());
}

}  // namespace
}  // namespace zelta::test
