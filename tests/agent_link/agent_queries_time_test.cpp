// The time that exchanges take: silent and slow agents, and exchanges that wait for each other. No
// request waits without a bound, whatever the agent does not do.
#include <algorithm>

#include "contract/attributes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "platform/process/error.h"
#include "tests/agent_link/serialising_link.h"
#include "tests/doubles/agent/card_agent.h"
#include "tests/support/system.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;
using Records = std::vector<LogRecord>;

constexpr std::uint32_t kAborted = platform::error::kOperationAborted;
constexpr char kGaveUp[] = "Another exchange did not end in time, nothing was sent";
const Bytes kSelect = {0x00, 0xA4, 0x04, 0x00};
const Bytes kNotAccepted = {0x69, 0x01};

// On the system's pipes, with an agent that lets the test read and write.
class SilentAgent : public LinkTest {
 protected:
  ~SilentAgent() override { stop(); }

  // Connected, without a card as the driver sees it, but with the state "swallowed" if wanted.
  void connect(const AgentLinkTimes& times, bool present = true) {
    start(times);
    waitForInsertion();
    ASSERT_TRUE(agent_.connectSilently());
    ASSERT_EQ(agent_.command().readNumber(), 0u);
    ASSERT_TRUE(agent_.command().writeNumber(0));
    ASSERT_TRUE(log_.waitFor("Waiting for command..."));
    if (present) makeCardPresent();
    log_.clear();
  }
  void connect() { connect(shortQueries()); }
  static AgentLinkTimes shortQueries() {
    AgentLinkTimes times;
    times.query = 500ms;
    return times;
  }

  QueryResult transmit(const Bytes& command = kSelect) { return queryTransmit(command, response_); }

  // The result of a query if the agent reads only that many bytes of it.
  template <typename Query>
  QueryResult unanswered(std::size_t size, Query query) {
    auto result = std::async(std::launch::async, query);
    EXPECT_EQ(agent_.command().read(size).size(), size);
    return result.get();
  }

  // Expects the failing step of a query that timed out, and for some queries an extra line.
  void expectTimedOut(const std::string& step, const std::string& last = "") {
    Records expected{error(kNoError, "Query timeout"), error(kAborted, step)};
    if (!last.empty()) expected.push_back(error(kNoError, last));
    EXPECT_EQ(log_.records(), expected);
  }

  CardAgent agent_;
  Bytes response_;
};

TEST_F(SilentAgent, UnansweredTransmit_EndsAfterFiveSeconds) {
  connect({});
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(unanswered(12, [this] { return transmit(); }), QueryResult::kTimeout);
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took, 5s);
  EXPECT_LT(took, 20s);
  expectTimedOut("[QueryTransmit]Failed to read APDU response size", "[QueryTransmit]Timeout");
}

TEST_F(SilentAgent, UnansweredAtrQuery_IsLoggedUnderItsOwnTag) {
  connect();
  Bytes atr;
  EXPECT_EQ(unanswered(4, [&] { return reader().QueryAtr(atr, true); }), QueryResult::kTimeout);
  expectTimedOut("[QueryATR]Failed to read ATR size", "[QueryAtr]Timeout");
}

TEST_F(SilentAgent, UnansweredCheck_LogsNoTimeOutOfItsOwnAndLeavesTheConnection) {
  connect();
  EXPECT_EQ(unanswered(4, [this] { return reader().CheckATR(); }), QueryResult::kTimeout);
  expectTimedOut("[CheckATR]Failed to read ATR size");
  auto next = std::async(std::launch::async, [this] { return reader().CheckATR(); });
  EXPECT_EQ(agent_.command().readNumber(), 1u);
  ASSERT_TRUE(agent_.command().write(number(2, {0x3B, 0x00})));
  EXPECT_EQ(next.get(), QueryResult::kSuccess);
}

// The time is up in the flush, whose result is ignored: the read after it must not block. If a pipe
// keeps nothing, it is up in the first write.
TEST_F(SilentAgent, AgentThatNeverReads_EndsTheQuery) {
  connect();
  EXPECT_EQ(transmit(), QueryResult::kTimeout);
  expectTimedOut(kPipesKeepBytes ? "[QueryTransmit]Failed to read APDU response size"
                                 : "[QueryTransmit]Failed to write QueryTransmit command",
                 "[QueryTransmit]Timeout");
}

TEST_F(SilentAgent, AnswerThatStopsInTheMiddle_EndsTheQuery) {
  connect();
  auto result = std::async(std::launch::async, [this] { return transmit(); });
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
TEST_F(SilentAgent, WriteThatBlocks_EndsTheQuery) {
  connect();
  const Bytes big(8 * 1024 * 1024, 0x5A);
  EXPECT_EQ(unanswered(8, [&] { return transmit(big); }), QueryResult::kTimeout);
  expectTimedOut("[QueryTransmit]Failed to write APDU request", "[QueryTransmit]Timeout");
}

TEST_F(SilentAgent, TimeOutWithTheCardGone_IsStillATimeOut) {
  connect(shortQueries(), false);
  ASSERT_EQ(reader().state(), SCARD_ABSENT);
  EXPECT_EQ(transmit(), QueryResult::kTimeout);
  EXPECT_EQ(response_, kNotAccepted);
}

class BoundedWaits : public SerialisingLink {
 protected:
  FakeRequest& makeTransmit() {
    return makeRequest(number(0, number(kTransmitHeaderSize, kSelect)));
  }

  void expectNotAccepted(const FakeRequest& transmit) {
    EXPECT_EQ(transmit.status(), kSucceeded);
    EXPECT_EQ(transmit.answer(), number(0, number(kTransmitHeaderSize, kNotAccepted)));
  }

  // A removal request that waits.
  FakeRequest& queueRemoval() {
    FakeRequest& removal = makeRequest();
    auto queueing = dispatch(&Reader::IoSmartCardIsAbsent, removal);
    answerAtr(AgentCommand::kQueryAtr);
    queueing.get();
    return removal;
  }
};

TEST_F(BoundedWaits, LateAnswerWhoseAgentLeavesAtTheNextCommand_IsNotTakenForItsAnswer) {
  connect(200ms);
  auto late = beginCheck();
  expectCommand(AgentCommand::kQueryAtr);
  EXPECT_EQ(late.get(), QueryResult::kTimeout);
  answer({0x3B, 0x00});
  auto next = beginCheck();
  EXPECT_EQ(pipes_.clientRead(command_, 1).size(), 1u);
  pipes_.closeClient(command_);
  EXPECT_EQ(next.get(), QueryResult::kFailure);
}

TEST_F(BoundedWaits, TimeOutThatComesJustBeforeACall_EndsIt) {
  connect(300ms);
  gaps_.holdNext(Call::kRead, "command0");
  auto check = beginCheck();
  expectCommand(AgentCommand::kQueryAtr);
  ASSERT_TRUE(gaps_.waitUntilHeld());
  ASSERT_TRUE(gaps_.waitForMissedCancels("command0", 2));
  gaps_.letGo();
  ASSERT_TRUE(isReady(check)) << "the query hangs";
  EXPECT_EQ(check.get(), QueryResult::kTimeout);
  // Only the first failed cancel is reported.
  constexpr char kFailed[] = "Failed to cancel IO on the command named pipe";
  EXPECT_EQ(log_.count(kFailed), 1u);
  EXPECT_TRUE(log_.contains(error(platform::error::kNotFound, kFailed)));
}

// One asks, one has the next turn, and a card is inserted meanwhile, whose ATR is asked for with
// the device lock held.
TEST_F(BoundedWaits, QueuedQueriesOfASilentAgent_AreAllDoneWithinTwiceTheLimit) {
  constexpr auto kLimit = 1000ms;
  using Clock = std::chrono::steady_clock;
  connect(kLimit);
  std::vector<FakeRequest*> requests;
  std::vector<std::future<Clock::duration>> calls;
  const auto ask = [&] {
    FakeRequest& request = makeRequest(number(SCARD_ATTR_ATR_STRING));
    requests.push_back(&request);
    calls.push_back(begin([this, &request, asked = Clock::now()] {
      reader().IoSmartCardGetAttribute(&request, 12, 4096);
      return Clock::now() - asked;
    }));
  };
  ask();
  expectCommand(AgentCommand::kQueryAtr);
  ask();
  (void)calls.front().wait_for(kLimit / 4);  // those after this still wait when the card comes
  ask();
  ask();
  expectCommand(AgentCommand::kQueryAtr);
  (void)calls[1].wait_for(kLimit / 8);  // the card's turn comes before its wait is up
  ASSERT_TRUE(report(AgentEvent::kCardInserted));
  std::vector<Clock::duration> times;
  for (auto& call : calls) times.push_back(call.get());
  std::sort(times.begin(), times.end());
  EXPECT_LT(times[2], 5 * kLimit / 2);
  EXPECT_LT(times[3], 7 * kLimit / 2) << "the second, which may find the lock held at its end";
  for (const FakeRequest* request : requests) EXPECT_EQ(request->status(), kNoMedia);
  EXPECT_GE(log_.count(std::string("[QueryAtr]") + kGaveUp), 2u);
  EXPECT_GE(log_.count("[QueryAtr]Timeout"), 4u);
}

TEST_F(BoundedWaits, CancelOfANotification_DoesNotReachTheNextExchange) {
  connect(2s);
  auto notifying = beginNotification();
  ASSERT_TRUE(waitUntilStuck());
  auto first = beginCheck();
  gaps_.holdNext(Call::kCancel, commandPipeName(0));
  auto second = begin([this] {  // it has waited for the device lock
    const ExchangeTurn::RequestScope scope(std::chrono::steady_clock::now() - 1900ms);
    return reader().CheckATR();
  });
  ASSERT_TRUE(gaps_.waitUntilHeld());
  expectCommand(AgentCommand::kNotifyCardReady);
  std::this_thread::sleep_for(20ms);  // time for an exchange that begins too early
  EXPECT_EQ(pipes_.unread(command_), 0u);
  gaps_.letGo();
  EXPECT_TRUE(notifying.get());
  answerAtr(AgentCommand::kQueryAtr);
  // On a loaded machine the second may have asked for its turn before the first.
  if (second.get() == QueryResult::kSuccess) answerAtr(AgentCommand::kQueryAtr);
  EXPECT_EQ(first.get(), QueryResult::kSuccess);
}

TEST_F(BoundedWaits, QueryThatHasEndedANotification_HasItsWholeLimit) {
  connect(1s);
  auto notifying = beginNotification();
  ASSERT_TRUE(waitUntilStuck());
  auto checking = beginCheck();
  EXPECT_FALSE(notifying.get());
  EXPECT_TRUE(log_.contains(error(kAborted, "Failed to send ready notification")));
  answerAtr(AgentCommand::kQueryAtr);  // what the agent has not read of the notification is gone
  EXPECT_EQ(checking.get(), QueryResult::kSuccess);
  EXPECT_EQ(log_.count("Query timeout"), 0u);
}

TEST_F(BoundedWaits, NotificationThatTwoQueriesWaitFor_IsCancelledOnce) {
  connect(300ms);
  gaps_.holdNext(Call::kWrite, "command0");  // so that no cancel reaches it
  auto notifying = beginNotification();
  ASSERT_TRUE(gaps_.waitUntilHeld());
  auto first = beginCheck();
  auto second = beginCheck();
  EXPECT_EQ(first.get(), QueryResult::kTimeout);
  EXPECT_EQ(second.get(), QueryResult::kTimeout);
  EXPECT_EQ(log_.count(std::string("[CheckATR]") + kGaveUp), 2u);
  EXPECT_EQ(log_.count("Failed to cancel IO on the command named pipe"), 1u);
  gaps_.letGo();
  reader().endExchanges();
  EXPECT_FALSE(notifying.get());
}

// The cancel would end the next exchange.
TEST_F(BoundedWaits, NotificationSentWhileItIsCancelled_KeepsItsTurnUntilTheCancelIsOver) {
  connect(1s);
  auto notifying = beginNotification();
  ASSERT_TRUE(waitUntilStuck());
  gaps_.holdNext(Call::kCancel, "command0");
  auto checking = beginCheck();
  ASSERT_TRUE(gaps_.waitUntilHeld());
  expectCommand(AgentCommand::kNotifyCardReady);
  EXPECT_EQ(notifying.wait_for(100ms), std::future_status::timeout);
  gaps_.letGo();
  EXPECT_TRUE(notifying.get());
  answerAtr(AgentCommand::kQueryAtr);
  EXPECT_EQ(checking.get(), QueryResult::kSuccess);
}

TEST_F(BoundedWaits, NotificationWithoutATurn_IsNotSent) {
  connect(300ms);
  auto notifying = beginNotification();
  ASSERT_TRUE(waitUntilStuck());
  log_.clear();
  EXPECT_FALSE(reader().NotifyCardReady());
  EXPECT_EQ(log_.records(), (Records{error(kNoError, std::string("[NotifyCardReady]") + kGaveUp),
                                     error(kNoError, "Failed to send ready notification")}));
  expectCommand(AgentCommand::kNotifyCardReady);  // the first is still being sent
  EXPECT_TRUE(notifying.get());
}

TEST_F(BoundedWaits, EmptyApdu_NeedsNoTurn) {
  connect();
  auto first = beginCheck();
  expectCommand(AgentCommand::kQueryAtr);
  Bytes response;
  auto empty = begin([&] { return queryTransmit({}, response); });
  EXPECT_TRUE(isReady(empty)) << "waits for its turn";
  answer({});
  EXPECT_EQ(empty.get(), QueryResult::kSuccess);
  EXPECT_EQ(response, kNotAccepted);
  first.get();
}

TEST_F(BoundedWaits, CardPulledWhileACheckIsUnanswered_CompletesTheRemovalAtOnce) {
  connect();
  FakeRequest& removal = queueRemoval();
  FakeRequest& present = makeRequest();
  auto asking = dispatch(&Reader::IoSmartCardIsPresent, present);
  expectCommand(AgentCommand::kQueryAtr);
  FakeRequest& transmit = makeTransmit();  // after the check
  auto transmitting = dispatch(&Reader::IoSmartCardTransmit, transmit);
  ASSERT_TRUE(log_.waitFor("[TRSM]IOCTL_SMARTCARD_TRANSMIT"));
  ASSERT_TRUE(report(AgentEvent::kCardRemoved));
  ASSERT_TRUE(removal.waitCompleted());
  EXPECT_EQ(removal.status(), kSucceeded);
  EXPECT_EQ(reader().state(), SCARD_ABSENT);
  answer({});
  ASSERT_EQ(pipes_.clientRead(command_, 12).size(), 12u);
  answer({});
  transmitting.get();
  asking.get();
  expectNotAccepted(transmit);
}

}  // namespace
}  // namespace zelta::test
