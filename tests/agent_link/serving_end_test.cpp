// How the reader's service of an agent ends: with the loss of the agent, by a shutdown, or because
// nobody waits for a card.
#include <gtest/gtest.h>

#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/reader_states.h"
#include "contract/status.h"
#include "contract/wire.h"
#include "platform/process/error.h"
#include "tests/agent_link/events_test.h"
#include "tests/support/system.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using Records = std::vector<LogRecord>;
using Order = std::vector<const LinkRequest*>;

class ServingEnd : public EventsTest {};

TEST_F(ServingEnd, LostAgentCancelsInsertionsAndSetsAbsent) {
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

TEST_F(ServingEnd, LostAgentFulfilsRemovals) {
  connectWithCard();
  LinkRequest& request = waitForRemoval();
  agent_.die();
  ASSERT_TRUE(request.waitForCompletion());
  EXPECT_EQ(request.status(), status::kSuccess);
  EXPECT_EQ(reader().state(), SCARD_ABSENT);
  EXPECT_EQ(CardReady::of(reader()), 0u);
}

TEST_F(ServingEnd, LostAgentIsDroppedFromBothPipes) {
  LinkRequest& request = connectWithoutCard();
  log_.clear();
  agent_.die();  // returns because the driver drops the command pipe
  ASSERT_TRUE(request.waitForCompletion());
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
  if (underWine()) expected.resize(1);  // it finds something to cancel all the same
  ASSERT_GE(errors.size(), expected.size());
  EXPECT_EQ(Records(errors.begin(), errors.begin() + expected.size()), expected);
}

TEST_F(ServingEnd, ShutdownCancelsRemovalsThenInsertionsNewestFirst) {
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

TEST_F(ServingEnd, ShutdownLeavesARequestThatIsBeingCancelledToItsCallback) {
  LinkRequest& request = connectWithoutCard();
  request.beginCancel();
  reader().shutdown();
  EXPECT_EQ(request.completions(), 0);
}

TEST_F(ServingEnd, ShutdownLeavesPipesAndThreadRunning) {
  connectWithoutCard();
  reader().shutdown();
  settle();
  EXPECT_EQ(reader().CheckATR(), QueryResult::kFailure);
  EXPECT_GE(agent_.commands(AgentCommand::kQueryAtr), 1);
}

TEST_F(ServingEnd, WithoutAnInsertionRequestTheServerThreadEnds) {
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

TEST_F(ServingEnd, TheInsertionRequestIsWaitedForTenSeconds) {
  const auto begin = std::chrono::steady_clock::now();
  start();
  ASSERT_TRUE(log_.waitFor("Failed to wait for card insertion request"));
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took, 10s);
  EXPECT_LT(took, 25s);
}

TEST_F(ServingEnd, AfterALostConnectionTheInsertionRequestIsWaitedForAgain) {
  AgentLinkTimes times;
  times.insertRequest = 200ms;
  start(times);
  waitForInsertion();
  ASSERT_TRUE(agent_.connect(answer()));
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  agent_.die();
  EXPECT_TRUE(log_.waitFor("Failed to wait for card insertion request"));
}

TEST_F(ServingEnd, ServerThreadThatThrowsIsLoggedAndTheProcessGoesOn) {
  connectWithoutCard();
  device_.failLock(true);
  agent_.events().close();
  ASSERT_TRUE(log_.waitFor("Server thread failed: no lock"));
  device_.failLock(false);
  EXPECT_TRUE(log_.contains(error(kNoError, "Server thread failed: no lock")));
  // What it does last is logged before the result is there.
  std::uint32_t result = 0;
  for (const auto begin = std::chrono::steady_clock::now();
       result != platform::error::kGenFailure && std::chrono::steady_clock::now() - begin < 30s;) {
    LinkRequest request(device_, number(SERVER_RESULT));
    reader().IoSmartCardGetAttribute(&request, 4, 4);
    result = loadLittleEndian(request.output().data());
  }
  EXPECT_EQ(result, platform::error::kGenFailure);
  stop();
}

}  // namespace
}  // namespace zelta::test
