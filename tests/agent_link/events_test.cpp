// What the agent reports, on the system's pipes: states, requests, session ids and log lines.
#include <gtest/gtest.h>

#include <atomic>

#include "agent_link/wire.h"
#include "diagnostics/log_output.h"
#include "driver/smartcard_ioctl.h"
#include "driver/status.h"
#include "tests/agent_link/link_test.h"
#include "tests/support/link_agent.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;
using Records = std::vector<LogRecord>;
using Order = std::vector<const LinkRequest*>;

const Bytes kAtr = {0x3B, 0x00};
constexpr std::uint32_t kBroken = platform::error::kBrokenPipe;

// The written-only flag of the reader.
struct CardReady : Reader {
  static std::uint32_t of(const Reader& reader) { return (reader.*(&CardReady::cardReady))(); }
};

class Events : public LinkTest {
 protected:
  Events() { device_.watchLock(); }
  ~Events() override {
    EXPECT_TRUE(device_.lockAlwaysHeld());
    stop();
  }

  // The agent's card: an ATR, or none.
  void setCard(bool in) { card_.store(in); }

  LinkAgent::Answer answer() {
    return [this](const LinkAgent::Command&) { return card_.load() ? kAtr : Bytes{}; };
  }

  // With an insertion request waiting that the connection does not fulfil.
  LinkRequest& connectWithoutCard(const AgentLinkTimes& times = {}) {
    start(times);
    LinkRequest& request = waitForInsertion();
    EXPECT_TRUE(agent_.connect(answer()));
    EXPECT_TRUE(log_.waitFor("Waiting for command..."));
    return request;
  }

  // With a card in and nothing waiting.
  void connectWithCard() {
    setCard(true);
    start();
    LinkRequest& request = waitForInsertion();
    EXPECT_TRUE(agent_.connect(answer()));
    EXPECT_TRUE(request.waitForCompletion());
    EXPECT_TRUE(log_.waitFor("Waiting for command..."));
  }

  // The driver has dealt with everything that was reported before.
  void settle() {
    const std::string text = "Unknown event received:77";
    const std::size_t before = log_.count(text);
    ASSERT_TRUE(agent_.sendEvent(77));
    ASSERT_TRUE(waitForCount(text, before + 1));
  }

  LinkAgent agent_;
  std::atomic<bool> card_{false};
};

TEST_F(Events, CardThatIsInAtTheConnectionCompletesTheInsertion) {
  connectWithCard();
  EXPECT_EQ(device_.completed().size(), 1u);
  EXPECT_EQ(device_.completed()[0]->status(), status::kSuccess);
  EXPECT_EQ(reader().state(), SCARD_SWALLOWED);
  EXPECT_EQ(agent_.commands(AgentCommand::QueryAtrReset), 1);
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
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::CardInserted));
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
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::CardInserted));
  ASSERT_TRUE(request.waitForCompletion());
  EXPECT_EQ(request.status(), status::kSuccess);
  settle();
  EXPECT_EQ(reader().state(), SCARD_SWALLOWED);
}

TEST_F(Events, InsertionWithNobodyWaitingSetsTheState) {
  LinkRequest& request = connectWithoutCard();
  request.cancel();
  ASSERT_EQ(request.status(), status::kCancelled);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::CardInserted));
  settle();
  EXPECT_EQ(reader().state(), SCARD_SWALLOWED);
}

TEST_F(Events, RemovalCompletesEveryWaitingRequestNewestFirst) {
  connectWithCard();
  LinkRequest& first = waitForRemoval();
  LinkRequest& second = waitForRemoval();
  log_.clear();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::CardRemoved));
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
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::CardRemoved));
  settle();
  EXPECT_EQ(reader().state(), SCARD_NEGOTIABLE);
  EXPECT_EQ(CardReady::of(reader()), 0u);
  EXPECT_EQ(log_.sessionIds(), std::vector<std::string>{"00000000-0000-0000-0000-000000000000"});
}

TEST_F(Events, RemovalDoesNotCompleteInsertions) {
  LinkRequest& request = connectWithoutCard();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::CardRemoved));
  settle();
  EXPECT_EQ(request.completions(), 0);
}

TEST_F(Events, SessionLogIdGoesToTheLogger) {
  connectWithoutCard();
  ASSERT_TRUE(agent_.sendSessionLogId("0f8fad5b-d9cb-469f-a165-70867728950e"));
  settle();
  EXPECT_EQ(log_.sessionIds(), std::vector<std::string>{"0f8fad5b-d9cb-469f-a165-70867728950e"});
}

TEST_F(Events, EveryByteOfASessionLogIdIsOneCharacterUnchanged) {
  connectWithoutCard();
  std::string id;
  for (int byte = 0; byte < 256; ++byte) id += static_cast<char>(byte);
  ASSERT_TRUE(agent_.sendSessionLogId(id));
  settle();
  EXPECT_EQ(log_.sessionIds(), std::vector<std::string>{id});
}

TEST_F(Events, EmptySessionLogIdIsAnErrorAndConsumesEightBytes) {
  connectWithoutCard();
  log_.clear();
  ASSERT_TRUE(agent_.sendSessionLogId(""));
  settle();
  EXPECT_TRUE(log_.contains(
      error(static_cast<std::uint32_t>(-501), "Session log ID size is 0. Session log ID not set")));
  EXPECT_TRUE(log_.sessionIds().empty());
  EXPECT_EQ(log_.errors().size(), 2u) << "this one and the unknown event behind it";
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

TEST_F(Events, LostAgentCancelsInsertionsAndSetsAbsent) {
  LinkRequest& request = connectWithoutCard();
  makeCardPresent();
  log_.clear();
  agent_.events().close();
  ASSERT_TRUE(request.waitForCompletion());
  EXPECT_EQ(request.status(), status::kCancelled);
  EXPECT_FALSE(request.completedPlainly());
  EXPECT_EQ(reader().state(), SCARD_ABSENT);
  EXPECT_EQ(log_.records().front(), error(kBroken, "Event named pipe read error"));
}

TEST_F(Events, LostAgentFulfilsRemovals) {
  connectWithCard();
  LinkRequest& request = waitForRemoval();
  agent_.die();
  ASSERT_TRUE(request.waitForCompletion());
  EXPECT_EQ(request.status(), status::kSuccess);
  EXPECT_EQ(reader().state(), SCARD_ABSENT);
  EXPECT_EQ(CardReady::of(reader()), 0u);
}

TEST_F(Events, LostAgentIsDroppedFromBothPipes) {
  LinkRequest& request = connectWithoutCard();
  log_.clear();
  agent_.die();  // returns because the driver drops the command pipe
  ASSERT_TRUE(request.waitForCompletion());
  waitForInsertion();
  LinkAgent next;
  ASSERT_TRUE(next.connect(answer()));
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  // Nothing was blocked on either pipe any more.
  const Records errors = log_.errors();
  EXPECT_EQ(Records(errors.begin(), errors.begin() + 3),
            (Records{error(kBroken, "Event named pipe read error"),
                     error(kNoError,
                           "Failed to cancel IO on the event named pipe. System error code: 1168"),
                     error(kNoError,
                           "Failed to cancel IO on the command named pipe. System error code: "
                           "1168")}));
}

TEST_F(Events, AgentThatDiesBehindASessionLogIdsCodeIsNoticed) {
  connectWithoutCard();
  log_.clear();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::SessionLogId));
  agent_.die();
  ASSERT_TRUE(log_.waitFor("Event named pipe read error"));
  const Records records = log_.records();
  EXPECT_EQ(
      Records(records.begin(), records.begin() + 4),
      (Records{debug("Event received"), error(kBroken, "Failed to read session log id size"),
               debug("Waiting for command..."), error(kBroken, "Event named pipe read error")}));
}

TEST_F(Events, AgentThatDiesWithinASessionLogIdIsNoticed) {
  connectWithoutCard();
  log_.clear();
  ASSERT_TRUE(agent_.events().write(number(2, number(36, {'a', 'b'}))));
  agent_.die();
  ASSERT_TRUE(log_.waitFor("Event named pipe read error"));
  EXPECT_TRUE(log_.contains(error(kBroken, "Failed to read session log id")));
  EXPECT_TRUE(log_.sessionIds().empty());
}

TEST_F(Events, RequestThatIsBeingCancelledOnlyLeavesTheList) {
  LinkRequest& cancelled = connectWithoutCard();
  LinkRequest& other = waitForInsertion();
  cancelled.beginCancel();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::CardInserted));
  ASSERT_TRUE(other.waitForCompletion());
  settle();
  EXPECT_EQ(cancelled.completions(), 0);
  EXPECT_EQ(cancelled.references(), 0);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::CardInserted));
  settle();
  EXPECT_EQ(cancelled.completions(), 0);
  EXPECT_EQ(other.completions(), 1);
}

TEST_F(Events, ShutdownCancelsRemovalsThenInsertionsNewestFirst) {
  LinkRequest& insertion1 = connectWithoutCard();
  LinkRequest& insertion2 = waitForInsertion();
  setCard(true);
  LinkRequest& removal1 = waitForRemoval();
  LinkRequest& removal2 = waitForRemoval();
  reader().shutdown();
  EXPECT_EQ(device_.completed(), (Order{&removal2, &removal1, &insertion2, &insertion1}));
  for (LinkRequest* request : {&insertion1, &insertion2, &removal1, &removal2}) {
    EXPECT_EQ(request->status(), status::kCancelled);
    EXPECT_TRUE(request->completedPlainly());
    EXPECT_EQ(request->references(), 0);
  }
  EXPECT_EQ(reader().state(), SCARD_ABSENT);
}

TEST_F(Events, ShutdownLeavesARequestThatIsBeingCancelledToItsCallback) {
  LinkRequest& request = connectWithoutCard();
  request.beginCancel();
  reader().shutdown();
  EXPECT_EQ(request.completions(), 0);
}

TEST_F(Events, ShutdownLeavesPipesAndThreadRunning) {
  connectWithoutCard();
  reader().shutdown();
  settle();
  EXPECT_EQ(reader().CheckATR(), QueryResult::Failure);
  EXPECT_GE(agent_.commands(AgentCommand::QueryAtr), 1);
}

// An agent that announces an id and does not send it holds nobody up but itself.
TEST_F(Events, AnnouncedSessionLogIdDoesNotHoldUpPresenceRequests) {
  connectWithCard();
  ASSERT_TRUE(agent_.events().write(number(2, number(36))));
  LinkRequest& removal = waitForRemoval();
  EXPECT_EQ(removal.completions(), 0);
  ASSERT_TRUE(agent_.events().write(std::string(36, 'x').data(), 36));
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::CardRemoved));
  EXPECT_TRUE(removal.waitForCompletion());
}

// The event is on its way before the check is answered: it is not lost between the two.
TEST_F(Events, InsertionBetweenCheckAndQueueingIsNotLost) {
  start();
  LinkRequest& first = waitForInsertion();
  std::atomic<bool> report{false};
  ASSERT_TRUE(agent_.connect([&](const LinkAgent::Command& command) {
    if (command.code == AgentCommand::QueryAtr && report) {
      EXPECT_TRUE(agent_.sendEvent(AgentEvent::CardInserted));
    }
    return Bytes{};
  }));
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  report = true;
  for (int round = 0; round < 200; ++round) {
    LinkRequest& request = makeRequest();
    reader().IoSmartCardIsPresent(&request, 0, 0);
    ASSERT_TRUE(request.waitForCompletion()) << "lost in round " << round;
    EXPECT_EQ(request.status(), status::kSuccess);
  }
  EXPECT_EQ(first.completions(), 1);
}

TEST_F(Events, RemovalBetweenCheckAndQueueingIsNotLost) {
  setCard(true);
  start();
  LinkRequest& first = waitForInsertion();
  ASSERT_TRUE(agent_.connect([&](const LinkAgent::Command& command) {
    if (command.code == AgentCommand::QueryAtr) {
      EXPECT_TRUE(agent_.sendEvent(AgentEvent::CardRemoved));
    }
    return kAtr;
  }));
  ASSERT_TRUE(first.waitForCompletion());
  for (int round = 0; round < 200; ++round) {
    LinkRequest& request = makeRequest();
    reader().IoSmartCardIsAbsent(&request, 0, 0);
    ASSERT_TRUE(request.waitForCompletion()) << "lost in round " << round;
    EXPECT_EQ(request.status(), status::kSuccess);
  }
}

TEST_F(Events, CardRemovedDuringATransmitAnswersNotAccepted) {
  std::atomic<LinkRequest*> removal{nullptr};
  setCard(true);
  start();
  LinkRequest& insertion = waitForInsertion();
  ASSERT_TRUE(agent_.connect([&](const LinkAgent::Command& command) {
    if (command.code != AgentCommand::QueryTransmit) return kAtr;
    EXPECT_TRUE(agent_.sendEvent(AgentEvent::CardRemoved));
    EXPECT_TRUE(removal.load()->waitForCompletion());
    return Bytes{};
  }));
  ASSERT_TRUE(insertion.waitForCompletion());
  removal = &waitForRemoval();
  Bytes response;
  EXPECT_EQ(reader().QueryTransmit({0, 1, 2, 3}, response), QueryResult::Success);
  EXPECT_EQ(response, (Bytes{0x69, 0x01}));
}

TEST_F(Events, WithoutAnInsertionRequestTheServerThreadEnds) {
  AgentLinkTimes times;
  times.insertRequest = 20ms;
  start(times);
  ASSERT_TRUE(log_.waitFor("Failed to wait for card insertion request"));
  EXPECT_TRUE(log_.contains(error(5023, "Failed to wait for card insertion request")));
  log_.clear();
  // Deliberately, a request that comes later does not bring it back.
  waitForInsertion();
  PipeClient client;
  ASSERT_TRUE(client.connectWhenListening(commandPipeName(0)));
  stop();
  EXPECT_EQ(log_.count("Command named pipe connected"), 0u);
  EXPECT_EQ(log_.count("Server thread completed"), 0u);
}

TEST_F(Events, TheInsertionRequestIsWaitedForTenSeconds) {
  const auto begin = std::chrono::steady_clock::now();
  start();
  ASSERT_TRUE(log_.waitFor("Failed to wait for card insertion request"));
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took, 10s);
  EXPECT_LT(took, 25s);
}

TEST_F(Events, AfterALostConnectionTheInsertionRequestIsWaitedForAgain) {
  AgentLinkTimes times;
  times.insertRequest = 200ms;
  start(times);
  waitForInsertion();
  ASSERT_TRUE(agent_.connect(answer()));
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  agent_.die();
  EXPECT_TRUE(log_.waitFor("Failed to wait for card insertion request"));
}

TEST_F(Events, EventWhoseHandlingThrowsIsLoggedAndTheNextIsHandled) {
  connectWithoutCard();
  device_.failLock(true);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::CardInserted));
  ASSERT_TRUE(log_.waitFor("Failed to handle event: no lock"));
  device_.failLock(false);
  EXPECT_TRUE(log_.contains(error(kNoError, "Failed to handle event: no lock")));
  settle();
}

TEST_F(Events, ServerThreadThatThrowsIsLoggedAndTheProcessGoesOn) {
  connectWithoutCard();
  device_.failLock(true);
  agent_.events().close();
  ASSERT_TRUE(log_.waitFor("Server thread failed: no lock"));
  device_.failLock(false);
  EXPECT_TRUE(log_.contains(error(kNoError, "Server thread failed: no lock")));
  stop();
}

}  // namespace
}  // namespace zelta::test
