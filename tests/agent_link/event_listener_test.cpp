// The server thread's handling of an agent's events, on the system's pipes, and the end of its
// service.
#include "agent_link/event_listener.h"

#include "contract/attributes.h"
#include "contract/status.h"
#include "contract/wire.h"
#include "tests/agent_link/events_test.h"
#include "tests/support/system.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using Records = std::vector<LogRecord>;

constexpr char kSessionId[] = "0f8fad5b-d9cb-469f-a165-70867728950e";

class EventListenerTest : public EventsTest {
 protected:
  // The first records since the log was cleared.
  Records firstRecords(std::size_t count) const {
    Records records = log_.records();
    EXPECT_GE(records.size(), count);
    records.resize(count);
    return records;
  }
};

TEST_F(EventListenerTest, UnknownEvent_IsLoggedAsASignedNumberAndSkipped) {
  connectWithoutCard();
  log_.clear();
  ASSERT_TRUE(agent_.sendEvent(7));
  ASSERT_TRUE(agent_.sendEvent(0xFFFFFFFF));
  settle();
  EXPECT_EQ(firstRecords(8),
            (Records{debug("Event received"), error(kNoError, "Unknown event received:7"),
                     debug("Waiting for command..."), debug("Event received"),
                     error(kNoError, "Unknown event received:-1"), debug("Waiting for command..."),
                     debug("Event received"), error(kNoError, "Unknown event received:77")}));
}

TEST_F(EventListenerTest, TwoEventsInOneWrite_AreHandledInOrder) {
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

TEST_F(EventListenerTest, SessionLogId_GoesToTheLoggerByteByByte) {
  connectWithoutCard();
  std::string everyByte;
  for (int byte = 0; byte < 256; ++byte) everyByte += static_cast<char>(byte);
  ASSERT_TRUE(agent_.sendSessionLogId(kSessionId));
  ASSERT_TRUE(agent_.sendSessionLogId(everyByte));
  settle();
  EXPECT_EQ(log_.sessionIds(), (std::vector<std::string>{kSessionId, everyByte}));
}

TEST_F(EventListenerTest, EmptySessionLogId_IsAnErrorAndConsumesEightBytes) {
  connectWithoutCard();
  log_.clear();
  ASSERT_TRUE(agent_.sendSessionLogId(""));
  settle();
  EXPECT_TRUE(log_.contains(
      error(static_cast<std::uint32_t>(-501), "Session log ID size is 0. Session log ID not set")));
  EXPECT_TRUE(log_.sessionIds().empty());
  EXPECT_EQ(log_.errors().size(), 2u) << "this one and the unknown event after it";
}

TEST_F(EventListenerTest, SessionLogIdOfOneKibibyte_IsTaken) {
  connectWithoutCard();
  const std::string id(1024, 'x');
  ASSERT_TRUE(agent_.sendSessionLogId(id));
  settle();
  EXPECT_EQ(log_.sessionIds(), std::vector<std::string>{id});
}

TEST_F(EventListenerTest, LongerSessionLogId_IsAnErrorAndTheNextEventIsHandled) {
  connectWithoutCard();
  for (const std::uint32_t size : {1025u, 4096u + 7, 8u * 1024 * 1024}) {
    log_.clear();
    ASSERT_TRUE(agent_.sendSessionLogId(std::string(size, 'x')));
    settle();
    EXPECT_TRUE(log_.contains(
        error(static_cast<std::uint32_t>(-501),
              "Session log ID size is " + std::to_string(size) + ". Session log ID not set")));
    EXPECT_EQ(log_.errors().size(), 2u) << "this one and the unknown event after it";
  }
  EXPECT_TRUE(log_.sessionIds().empty());
}

TEST_F(EventListenerTest, AgentThatDiesAfterASessionLogIdsCode_IsNoticed) {
  connectWithoutCard();
  log_.clear();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kSessionLogId));
  agent_.die();
  ASSERT_TRUE(log_.waitFor("Event named pipe read error"));
  EXPECT_EQ(
      firstRecords(4),
      (Records{debug("Event received"), error(kBroken, "Failed to read session log id size"),
               debug("Waiting for command..."), error(kBroken, "Event named pipe read error")}));
}

TEST_F(EventListenerTest, AgentThatDiesWithinASessionLogId_IsNoticed) {
  connectWithoutCard();
  log_.clear();
  ASSERT_TRUE(agent_.events().write(number(2, number(36, {'a', 'b'}))));
  agent_.die();
  ASSERT_TRUE(log_.waitFor("Event named pipe read error"));
  // If a read returns with the bytes that are there, half an id passes for a whole one.
  EXPECT_EQ(log_.contains(error(kBroken, "Failed to read session log id")), kReadsWaitForAllBytes);
  EXPECT_EQ(log_.sessionIds().empty(), kReadsWaitForAllBytes);
}

// An agent that announces an id and does not send it holds up only itself.
TEST_F(EventListenerTest, AnnouncedSessionLogIdThatIsNotSent_HoldsUpNoPresenceRequest) {
  connectWithCard();
  ASSERT_TRUE(agent_.events().write(number(2, number(36))));
  FakeRequest& removal = waitForRemoval();
  EXPECT_FALSE(removal.completed());
  ASSERT_TRUE(agent_.events().write(std::string(36, 'x').data(), 36));
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  EXPECT_TRUE(removal.waitCompleted());
}

TEST_F(EventListenerTest, EventWhoseHandlingThrows_IsLoggedAndTheNextIsHandled) {
  connectWithoutCard();
  device_.failLock(true);
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
  ASSERT_TRUE(log_.waitFor("Failed to handle event: no lock"));
  device_.failLock(false);
  EXPECT_TRUE(log_.contains(error(kNoError, "Failed to handle event: no lock")));
  settle();
}

TEST_F(EventListenerTest, ConnectionWhoseHandlingThrows_IsLoggedAndTheAgentIsServed) {
  setCard(true);
  start();
  waitForInsertion();
  device_.failLock(true);
  ASSERT_TRUE(agent_.connect(answer()));
  ASSERT_TRUE(log_.waitFor("Failed to handle connection: no lock"));
  device_.failLock(false);
  EXPECT_TRUE(log_.contains(error(kNoError, "Failed to handle connection: no lock")));
  settle();
}

TEST_F(EventListenerTest, LostAgent_IsDroppedFromBothPipesAndTheNextIsAccepted) {
  FakeRequest& request = connectWithoutCard();
  log_.clear();
  agent_.die();  // returns because the driver drops the command pipe
  ASSERT_TRUE(request.waitCompleted());
  ASSERT_TRUE(
      underWine() ||
      log_.waitFor("Failed to cancel IO on the command named pipe. System error code: 1168"));
  waitForInsertion();
  CardAgent next;
  ASSERT_TRUE(next.connect(answer()));
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  // Nothing was blocked on either pipe any more.
  const Records errors = log_.errors();
  Records expected = {
      error(kBroken, "Event named pipe read error"),
      error(kNoError, "Failed to cancel IO on the event named pipe. System error code: 1168"),
      error(kNoError, "Failed to cancel IO on the command named pipe. System error code: 1168")};
  if (underWine()) expected.resize(1);  // its cancel succeeds all the same
  ASSERT_GE(errors.size(), expected.size());
  EXPECT_EQ(Records(errors.begin(), errors.begin() + expected.size()), expected);
}

TEST_F(EventListenerTest, NoInsertionRequestInTime_EndsTheThreadForGood) {
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

TEST_F(EventListenerTest, InsertionRequest_IsWaitedForTenSeconds) {
  const auto begin = std::chrono::steady_clock::now();
  start();
  ASSERT_TRUE(log_.waitFor("Failed to wait for card insertion request"));
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took, 10s);
  EXPECT_LT(took, 25s);
}

TEST_F(EventListenerTest, InsertionRequest_IsWaitedForAgainAfterTheLossOfTheAgent) {
  AgentLinkTimes times;
  times.insertRequest = 200ms;
  start(times);
  waitForInsertion();
  ASSERT_TRUE(agent_.connect(answer()));
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  agent_.die();
  EXPECT_TRUE(log_.waitFor("Failed to wait for card insertion request"));
}

TEST_F(EventListenerTest, ServerThreadThatThrows_EndsTheRequestsThatWait) {
  std::atomic<bool> fails{false};
  device_.onLock = [&fails] {
    if (fails.exchange(false)) throw std::runtime_error("no lock");
  };
  FakeRequest& request = connectWithoutCard();
  fails = true;
  agent_.events().close();
  ASSERT_TRUE(request.waitCompleted());
  EXPECT_EQ(request.status(), status::kCancelled);
  stop();
  EXPECT_TRUE(log_.contains(error(kNoError, "Server thread failed: no lock")));
}

TEST_F(EventListenerTest, ServerThreadThatThrows_IsLoggedAndTheProcessGoesOn) {
  connectWithoutCard();
  device_.failLock(true);
  agent_.events().close();
  ASSERT_TRUE(log_.waitFor("Server thread failed: no lock"));
  device_.failLock(false);
  EXPECT_TRUE(log_.contains(error(kNoError, "Server thread failed: no lock")));
  EXPECT_TRUE(log_.contains(error(kNoError, "Failed to end requests: no lock")));
  // Its last action is logged before the result is set.
  std::uint32_t result = 0;
  for (const auto begin = std::chrono::steady_clock::now();
       result != platform::error::kGenFailure && std::chrono::steady_clock::now() - begin < 30s;) {
    FakeRequest& request = makeRequest(number(SERVER_RESULT));
    reader().IoSmartCardGetAttribute(&request, 4, 4);
    result = loadLittleEndian(request.output().data());
  }
  EXPECT_EQ(result, platform::error::kGenFailure);
  stop();
}

}  // namespace
}  // namespace zelta::test
