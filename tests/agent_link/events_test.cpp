// The cards that the agent reports, on the system's pipes: states, requests and log lines.
#include <gtest/gtest.h>

#include <atomic>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/status.h"
#include "contract/wire.h"
#include "tests/agent_link/events_test.h"
#include "tests/support/repetitions.h"

namespace zelta::test {
namespace {

using Records = std::vector<LogRecord>;
using Order = std::vector<const LinkRequest*>;

class Events : public EventsTest {};

TEST_F(Events, CardThatIsInAtTheConnectionCompletesTheInsertion) {
  connectWithCard();
  EXPECT_EQ(device_.completed().size(), 1u);
  EXPECT_EQ(device_.completed()[0]->status(), status::kSuccess);
  EXPECT_EQ(reader().state(), SCARD_SWALLOWED);
  EXPECT_EQ(agent_.commands(AgentCommand::kQueryAtrReset), 1);
}

TEST_F(Events, NoCardAtTheConnectionLeavesTheInsertionWaiting) {
  LinkRequest& request = connectWithoutCard();
  EXPECT_EQ(request.completions(), 0);
  EXPECT_EQ(reader().state(), SCARD_ABSENT);
}

TEST_F(Events, InsertionCompletesEveryWaitingRequestNewestFirst) {
  LinkRequest& first = connectWithoutCard();
  LinkRequest& second = waitForInsertion();
  log_.clear();
  setCard(true);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
  ASSERT_TRUE(first.waitForCompletion());
  EXPECT_EQ(device_.completed(), (Order{&second, &first}));
  for (LinkRequest* request : {&first, &second}) {
    EXPECT_EQ(request->status(), status::kSuccess);
    EXPECT_EQ(request->information(), 0u);
    EXPECT_FALSE(request->completedPlainly());
  }
  settle();
  EXPECT_EQ(reader().state(), SCARD_SWALLOWED);
  const Records records = log_.records();
  ASSERT_GE(records.size(), 4u);
  EXPECT_EQ(Records(records.begin(), records.begin() + 4),
            (Records{debug("Event received"), info("Card inserted"),
                     info("Initializing protocols..."), info("[QueryATR]ATR:3B00")}));
}

TEST_F(Events, InsertionCompletesRequestsWhateverTheAtr) {
  LinkRequest& request = connectWithoutCard();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
  ASSERT_TRUE(request.waitForCompletion());
  EXPECT_EQ(request.status(), status::kSuccess);
  settle();
  EXPECT_EQ(reader().state(), SCARD_SWALLOWED);
}

TEST_F(Events, InsertionWithNobodyWaitingSetsTheState) {
  LinkRequest& request = connectWithoutCard();
  request.cancel();
  ASSERT_EQ(request.status(), status::kCancelled);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
  settle();
  EXPECT_EQ(reader().state(), SCARD_SWALLOWED);
}

TEST_F(Events, RemovalCompletesEveryWaitingRequestNewestFirst) {
  connectWithCard();
  LinkRequest& first = waitForRemoval();
  LinkRequest& second = waitForRemoval();
  log_.clear();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  ASSERT_TRUE(first.waitForCompletion());
  const Order completed = device_.completed();
  EXPECT_EQ(Order(completed.begin() + 1, completed.end()), (Order{&second, &first}));
  EXPECT_EQ(first.status(), status::kSuccess);
  EXPECT_EQ(second.status(), status::kSuccess);
  EXPECT_EQ(reader().state(), SCARD_ABSENT);
  settle();
  const Records records = log_.records();
  EXPECT_EQ(Records(records.begin(), records.begin() + 2),
            (Records{debug("Event received"), info("Card removed")}));
}

TEST_F(Events, RemovalWithNobodyWaitingLeavesTheState) {
  connectWithCard();
  LinkRequest& reset = makeRequest(number(SCARD_COLD_RESET));
  reader().IoSmartCardPower(&reset, 4, 64);
  ASSERT_EQ(reader().state(), SCARD_NEGOTIABLE);
  ASSERT_EQ(CardReady::of(reader()), 1u);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  settle();
  EXPECT_EQ(reader().state(), SCARD_NEGOTIABLE);
  EXPECT_EQ(CardReady::of(reader()), 0u);
  EXPECT_EQ(log_.sessionIds(), std::vector<std::string>{"00000000-0000-0000-0000-000000000000"});
}

TEST_F(Events, RemovalDoesNotCompleteInsertions) {
  LinkRequest& request = connectWithoutCard();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  settle();
  EXPECT_EQ(request.completions(), 0);
}

TEST_F(Events, UnknownEventIsLoggedAsASignedNumberAndSkipped) {
  connectWithoutCard();
  log_.clear();
  ASSERT_TRUE(agent_.sendEvent(7));
  ASSERT_TRUE(agent_.sendEvent(0xFFFFFFFF));
  settle();
  Records records = log_.records();
  records.resize(8);
  EXPECT_EQ(records,
            (Records{debug("Event received"), error(kNoError, "Unknown event received:7"),
                     debug("Waiting for command..."), debug("Event received"),
                     error(kNoError, "Unknown event received:-1"), debug("Waiting for command..."),
                     debug("Event received"), error(kNoError, "Unknown event received:77")}));
}

TEST_F(Events, TwoEventsInOneWriteAreHandledInOrder) {
  connectWithoutCard();
  log_.clear();
  ASSERT_TRUE(agent_.events().write(number(1, number(0))));
  settle();
  Records cards;
  for (const LogRecord& record : log_.records()) {
    if (record.text == "Card inserted" || record.text == "Card removed") cards.push_back(record);
  }
  EXPECT_EQ(cards, (Records{info("Card inserted"), info("Card removed")}));
}

TEST_F(Events, EventInPiecesIsOneEvent) {
  connectWithoutCard();
  for (const std::uint8_t byte : number(9)) ASSERT_TRUE(agent_.events().write(Bytes{byte}));
  EXPECT_TRUE(log_.waitFor("Unknown event received:9"));
}

TEST_F(Events, RequestThatIsBeingCancelledOnlyLeavesTheList) {
  LinkRequest& cancelled = connectWithoutCard();
  LinkRequest& other = waitForInsertion();
  cancelled.beginCancel();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
  ASSERT_TRUE(other.waitForCompletion());
  settle();
  EXPECT_EQ(cancelled.completions(), 0);
  EXPECT_EQ(cancelled.references(), 0);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
  settle();
  EXPECT_EQ(cancelled.completions(), 0);
  EXPECT_EQ(other.completions(), 1);
}

// The event is being handled before the check is answered: it is not lost between the two.
TEST_F(Events, InsertionBetweenCheckAndWaitIsNotLost) {
  start();
  LinkRequest& first = waitForInsertion();
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
  for (int round = 0; round < repetitions(200); ++round) {
    LinkRequest& request = makeRequest();
    reader().IoSmartCardIsPresent(&request, 0, 0);
    ASSERT_TRUE(request.waitForCompletion()) << "lost in round " << round;
    EXPECT_EQ(request.status(), status::kSuccess);
    EXPECT_EQ(reader().state(), SCARD_SWALLOWED);
  }
  EXPECT_EQ(first.completions(), 1);
}

// The event has been handled before the check is answered.
TEST_F(Events, RemovalBetweenCheckAndWaitIsNotLost) {
  setCard(true);
  start();
  LinkRequest& first = waitForInsertion();
  ASSERT_TRUE(agent_.connect([&](const CardAgent::Command& command) {
    if (command.code == AgentCommand::kQueryAtr) {
      EXPECT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
      settle();
    }
    return kAtr;
  }));
  ASSERT_TRUE(first.waitForCompletion());
  for (int round = 0; round < repetitions(200); ++round) {
    LinkRequest& request = makeRequest();
    reader().IoSmartCardIsAbsent(&request, 0, 0);
    ASSERT_TRUE(request.waitForCompletion()) << "lost in round " << round;
    EXPECT_EQ(request.status(), status::kSuccess);
    EXPECT_EQ(reader().state(), SCARD_ABSENT);
  }
}

TEST_F(Events, CardRemovedDuringATransmitAnswersNotAccepted) {
  std::atomic<LinkRequest*> removal{nullptr};
  setCard(true);
  start();
  LinkRequest& insertion = waitForInsertion();
  ASSERT_TRUE(agent_.connect([&](const CardAgent::Command& command) {
    if (command.code != AgentCommand::kQueryTransmit) return kAtr;
    EXPECT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
    EXPECT_TRUE(removal.load()->waitForCompletion());
    return Bytes{};
  }));
  ASSERT_TRUE(insertion.waitForCompletion());
  removal = &waitForRemoval();
  Bytes response;
  EXPECT_EQ(reader().QueryTransmit({0, 1, 2, 3}, response), QueryResult::kSuccess);
  EXPECT_EQ(response, (Bytes{0x69, 0x01}));
}

TEST_F(Events, EventWhoseHandlingThrowsIsLoggedAndTheNextIsHandled) {
  connectWithoutCard();
  device_.failLock(true);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
  ASSERT_TRUE(log_.waitFor("Failed to handle event: no lock"));
  device_.failLock(false);
  EXPECT_TRUE(log_.contains(error(kNoError, "Failed to handle event: no lock")));
  settle();
}

}  // namespace
}  // namespace zelta::test
