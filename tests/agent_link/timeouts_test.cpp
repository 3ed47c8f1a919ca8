// Silent and slow agents: a query ends when its time is up, whatever call it is in, and before one.
#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "contract/bytes.h"
#include "contract/reader_states.h"
#include "contract/wire.h"
#include "platform/process/error.h"
#include "tests/agent_link/link_test.h"
#include "tests/doubles/agent/card_agent.h"
#include "tests/doubles/pipes/gap_pipes.h"
#include "tests/doubles/pipes/serialising_pipes.h"
#include "tests/support/system.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using Records = std::vector<LogRecord>;

constexpr std::uint32_t kAborted = platform::error::kOperationAborted;
const Bytes kSelect = {0x00, 0xA4, 0x04, 0x00};

AgentLinkTimes shortQueries() {
  AgentLinkTimes times;
  times.query = 500ms;
  return times;
}

// On the system's pipes, with an agent that lets the test read and write.
class SilentAgent : public LinkTest {
 protected:
  ~SilentAgent() override { stop(); }

  // Connected, with the state "swallowed" and the driver's first ATR query left unanswered: that
  // takes no part of a test within the short time.
  void connect() {
    start(shortQueries());
    waitForInsertion();
    ASSERT_TRUE(agent_.connectSilently());
    ASSERT_EQ(agent_.command().readNumber(), 0u);
    ASSERT_TRUE(log_.waitFor("Waiting for command..."));
    makeCardPresent();
    log_.clear();
  }

  QueryResult transmit() { return reader().QueryTransmit(kSelect, response_); }

  CardAgent agent_;
  Bytes response_;
};

TEST_F(SilentAgent, UnansweredTransmitEndsAfterFiveSeconds) {
  start();
  waitForInsertion();
  ASSERT_TRUE(agent_.connectSilently());
  ASSERT_EQ(agent_.command().readNumber(), 0u);
  ASSERT_TRUE(agent_.command().writeNumber(0));
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  makeCardPresent();
  log_.clear();
  const auto begin = std::chrono::steady_clock::now();
  auto result = std::async(std::launch::async, [&] { return transmit(); });
  EXPECT_EQ(agent_.command().read(12).size(), 12u);
  EXPECT_EQ(result.get(), QueryResult::kTimeout);
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took, 5s);
  EXPECT_LT(took, 20s);
  EXPECT_EQ(log_.records(),
            (Records{error(kNoError, "Query timeout"),
                     error(kAborted, "[QueryTransmit]Failed to read APDU response size"),
                     error(kNoError, "[QueryTransmit]Timeout")}));
}

TEST_F(SilentAgent, UnansweredAtrQueryIsLoggedUnderItsOwnTag) {
  connect();
  Bytes atr;
  auto result = std::async(std::launch::async, [&] { return reader().QueryAtr(atr, true); });
  EXPECT_EQ(agent_.command().read(4).size(), 4u);
  EXPECT_EQ(result.get(), QueryResult::kTimeout);
  EXPECT_EQ(log_.records(), (Records{error(kNoError, "Query timeout"),
                                     error(kAborted, "[QueryATR]Failed to read ATR size"),
                                     error(kNoError, "[QueryAtr]Timeout")}));
}

TEST_F(SilentAgent, UnansweredCheckLogsNoTimeOutOfItsOwn) {
  connect();
  auto result = std::async(std::launch::async, [&] { return reader().CheckATR(); });
  EXPECT_EQ(agent_.command().read(4).size(), 4u);
  EXPECT_EQ(result.get(), QueryResult::kTimeout);
  EXPECT_EQ(log_.records(), (Records{error(kNoError, "Query timeout"),
                                     error(kAborted, "[CheckATR]Failed to read ATR size")}));
}

// The time is up in the flush, whose result is ignored: the read behind it must not block. Where a
// pipe keeps nothing, it is up in the first write.
TEST_F(SilentAgent, AgentThatNeverReadsEndsTheQueryToo) {
  connect();
  EXPECT_EQ(transmit(), QueryResult::kTimeout);
  const char* const step = kPipesKeepBytes ? "[QueryTransmit]Failed to read APDU response size"
                                           : "[QueryTransmit]Failed to write QueryTransmit command";
  EXPECT_EQ(log_.records(), (Records{error(kNoError, "Query timeout"), error(kAborted, step),
                                     error(kNoError, "[QueryTransmit]Timeout")}));
  EXPECT_EQ(reader().CheckATR(), QueryResult::kTimeout);
}

TEST_F(SilentAgent, AnswerThatStopsInTheMiddleEndsTheQuery) {
  connect();
  auto result = std::async(std::launch::async, [&] { return transmit(); });
  EXPECT_EQ(agent_.command().read(12).size(), 12u);
  ASSERT_TRUE(agent_.command().writeNumber(10));
  ASSERT_TRUE(agent_.command().write(Bytes{1, 2, 3}));
  if (!kReadsWaitForAllBytes) {
    // The agent has to write each field whole: one that does not is taken at its word.
    EXPECT_EQ(result.get(), QueryResult::kSuccess);
    EXPECT_EQ(response_, (Bytes{1, 2, 3, 0, 0, 0, 0, 0, 0, 0}));
    return;
  }
  EXPECT_EQ(result.get(), QueryResult::kTimeout);
  EXPECT_TRUE(response_.empty());
  EXPECT_TRUE(log_.contains(error(kAborted, "[QueryTransmit]Failed to read APDU response")));
}

// Too big for the pipe: the write itself blocks.
TEST_F(SilentAgent, WriteThatBlocksEndsTheQuery) {
  connect();
  const Bytes big(8 * 1024 * 1024, 0x5A);
  auto head = std::async(std::launch::async, [&] { return agent_.command().read(8); });
  EXPECT_EQ(reader().QueryTransmit(big, response_), QueryResult::kTimeout);
  EXPECT_EQ(head.get().size(), 8u);
  EXPECT_EQ(log_.records(), (Records{error(kNoError, "Query timeout"),
                                     error(kAborted, "[QueryTransmit]Failed to write APDU request"),
                                     error(kNoError, "[QueryTransmit]Timeout")}));
}

TEST_F(SilentAgent, TimeOutWithTheCardGoneIsStillATimeOut) {
  start(shortQueries());
  waitForInsertion();
  ASSERT_TRUE(agent_.connectSilently());
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  ASSERT_EQ(reader().state(), SCARD_ABSENT);
  EXPECT_EQ(transmit(), QueryResult::kTimeout);
  EXPECT_EQ(response_, (Bytes{0x69, 0x01}));
}

TEST_F(SilentAgent, TimeOutLeavesTheConnectionForTheNextQuery) {
  connect();
  auto unanswered = std::async(std::launch::async, [&] { return transmit(); });
  EXPECT_EQ(agent_.command().read(12).size(), 12u);
  EXPECT_EQ(unanswered.get(), QueryResult::kTimeout);
  auto result = std::async(std::launch::async, [&] { return reader().CheckATR(); });
  EXPECT_EQ(agent_.command().readNumber(), 1u);
  ASSERT_TRUE(agent_.command().writeNumber(2));
  ASSERT_TRUE(agent_.command().write(Bytes{0x3B, 0x00}));
  EXPECT_EQ(result.get(), QueryResult::kSuccess);
}

// The time is up just before a call is entered: nothing is there to cancel yet. On pipes that
// serialise their operations, as Windows does.
class TimeOutInTheGap : public LinkTest {
 protected:
  ~TimeOutInTheGap() override { stop(); }

  void connect() {
    start(shortQueries());
    ASSERT_TRUE(waitUntilCreated());
    LinkRequest& request = waitForInsertion();
    event_ = pipes_.connectClient(eventPipeName(0));
    command_ = pipes_.connectClient(commandPipeName(0));
    ASSERT_NE(event_, SerialisingPipes::kNoClient);
    ASSERT_NE(command_, SerialisingPipes::kNoClient);
    ASSERT_EQ(pipes_.clientRead(command_, 4), number(0));
    ASSERT_TRUE(pipes_.clientWrite(command_, number(2, {0x3B, 0x00})));
    ASSERT_TRUE(request.waitForCompletion());
    log_.clear();
  }

  void expectTimeOutHeldIn(GapPipes::Call call) {
    gaps_.holdNext(call, "command0");
    auto result = std::async(std::launch::async, [&] { return reader().CheckATR(); });
    ASSERT_TRUE(gaps_.waitUntilHeld());
    ASSERT_TRUE(gaps_.waitForMissedCancels("command0", 2));
    gaps_.letGo();
    ASSERT_EQ(result.wait_for(30s), std::future_status::ready) << "the query hangs";
    EXPECT_EQ(result.get(), QueryResult::kTimeout);
    // One failed cancel is reported, those that follow are not.
    EXPECT_EQ(log_.count("Failed to cancel IO on the command named pipe"), 1u);
    EXPECT_TRUE(log_.contains(
        error(platform::error::kNotFound, "Failed to cancel IO on the command named pipe")));
  }

  SerialisingPipes pipes_;
  GapPipes gaps_{pipes_};
  ScopedPipes scoped_{gaps_};
  SerialisingPipes::Client event_ = SerialisingPipes::kNoClient;
  SerialisingPipes::Client command_ = SerialisingPipes::kNoClient;
};

TEST_F(TimeOutInTheGap, BeforeAWrite) {
  connect();
  expectTimeOutHeldIn(GapPipes::Call::kWrite);
}

TEST_F(TimeOutInTheGap, BeforeAFlush) {
  connect();
  auto agent = std::async(std::launch::async, [&] { return pipes_.clientRead(command_, 4); });
  expectTimeOutHeldIn(GapPipes::Call::kFlush);
  EXPECT_EQ(agent.get(), number(1));
}

TEST_F(TimeOutInTheGap, BeforeARead) {
  connect();
  auto agent = std::async(std::launch::async, [&] { return pipes_.clientRead(command_, 4); });
  expectTimeOutHeldIn(GapPipes::Call::kRead);
  EXPECT_EQ(agent.get(), number(1));
}

}  // namespace
}  // namespace zelta::test
