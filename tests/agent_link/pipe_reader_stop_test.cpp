// A reader is destroyed promptly whatever its threads are doing, and the end of exchanges releases
// threads that are stuck with a silent agent.
#include "agent_link/pipe_reader.h"

#include "contract/io_controls.h"
#include "platform/process/error.h"
#include "tests/agent_link/serialising_link.h"
#include "tests/doubles/agent/card_agent.h"
#include "tests/support/process_state.h"
#include "tests/support/repetitions.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t kAborted = platform::error::kOperationAborted;

// A driver whose way out takes longer is ended by the system, together with its host.
constexpr std::chrono::seconds kHostLimit{60};

// What the server thread is doing when the reader is destroyed.
enum class Doing {
  kStarting,
  kAwaitingARequest,
  kWaking,
  kConnecting,
  kQueryingAConnection,
  kListening,
  kQueryingACard,
  kReadingASessionId,
  kLosingItsAgent,
};

struct DoingRow {
  const char* name;
  Doing doing;
};

// On the system's pipes. No wait that a stop ends has its own time limit.
class Stop : public LinkTest, public ::testing::WithParamInterface<DoingRow> {
 protected:
  ~Stop() override { stop(); }

  void reach(Doing doing) {
    if (doing == Doing::kStarting) return;
    if (doing != Doing::kWaking) {
      ASSERT_TRUE(waitUntilCreated());
    }
    if (doing == Doing::kAwaitingARequest) return;
    waitForInsertion();
    if (doing == Doing::kWaking) return;
    if (doing == Doing::kConnecting) {
      ASSERT_TRUE(agent_.command().connectWhenListening(commandPipeName(0)));
      return;
    }
    ASSERT_TRUE(agent_.connectSilently());
    ASSERT_EQ(agent_.command().readNumber(), 0u);
    if (doing == Doing::kQueryingAConnection) return;
    ASSERT_TRUE(agent_.command().writeNumber(0));
    ASSERT_TRUE(log_.waitFor("Waiting for command..."));
    if (doing == Doing::kQueryingACard) {
      // The device lock is held during this query, and shutting down needs it if a request waits.
      ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
      ASSERT_EQ(agent_.command().readNumber(), 0u);
    } else if (doing == Doing::kReadingASessionId) {
      ASSERT_TRUE(agent_.events().write(number(2, number(36))));
      ASSERT_TRUE(log_.waitFor("Event received"));
    } else if (doing == Doing::kLosingItsAgent) {
      agent_.events().close();
    }
  }

  CardAgent agent_;
};

TEST_P(Stop, IsPromptAndLeaksNothing) {
  AgentLinkTimes times;
  times.query = times.insertRequest = 10min;
  std::vector<std::string> files;
  std::size_t threads = 0;
  for (int round = 0; round < repetitions(100); ++round) {
    log_.clear();
    start(times);
    ASSERT_NO_FATAL_FAILURE(reach(GetParam().doing));
    const auto begin = std::chrono::steady_clock::now();
    stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, kHostLimit) << "round " << round;
    EXPECT_EQ(log_.count("Server thread completed"), 1u) << "round " << round;
    agent_.events().close();
    agent_.command().close();
    if (round == 0) {
      files = openFiles();
      threads = threadCount();
    }
  }
  EXPECT_EQ(openFiles(), files);
  EXPECT_LE(threadsLeft(threads), threads);
}

INSTANTIATE_TEST_SUITE_P(Server, Stop,
                         ::testing::Values(DoingRow{"Starting", Doing::kStarting},
                                           DoingRow{"AwaitingARequest", Doing::kAwaitingARequest},
                                           DoingRow{"Waking", Doing::kWaking},
                                           DoingRow{"Connecting", Doing::kConnecting},
                                           DoingRow{"QueryingAConnection",
                                                    Doing::kQueryingAConnection},
                                           DoingRow{"Listening", Doing::kListening},
                                           DoingRow{"QueryingACard", Doing::kQueryingACard},
                                           DoingRow{"ReadingASessionId", Doing::kReadingASessionId},
                                           DoingRow{"LosingItsAgent", Doing::kLosingItsAgent}),
                         [](const auto& instance) { return instance.param.name; });

// The stop comes just before the server thread enters a call: nothing is there to cancel, and on
// these pipes a disconnect waits for a call that has begun.
struct GapRow {
  const char* name;
  GapPipes::Call call;
  const char* pipe;
  std::size_t failures;  // disconnects that find nothing to cancel
};

class StopInTheGap : public SerialisingLink, public ::testing::WithParamInterface<GapRow> {};

TEST_P(StopInTheGap, EndsTheCallAllTheSame) {
  const GapRow& row = GetParam();
  const std::string pipe = row.pipe;
  gaps_.holdNext(row.call, pipe + "0");
  startAndWait();
  if (row.call == Call::kRead) {
    openPipes();
    expectCommand(AgentCommand::kQueryAtrReset);
    if (pipe == "event") answer({});
  } else if (pipe == "event") {
    ASSERT_NE(pipes_.connectClient(commandPipeName(0)), SerialisingPipes::kNoClient);
  }
  ASSERT_TRUE(gaps_.waitUntilHeld());
  auto stopped = begin([this] { destroy(); });
  ASSERT_TRUE(gaps_.waitForMissedCancels(pipe + "0", 2));
  gaps_.letGo();
  ASSERT_TRUE(isReady(stopped)) << "the reader hangs";
  EXPECT_EQ(log_.count("Server thread completed"), 1u);
  // Only the first cancel of a disconnect is reported.
  EXPECT_EQ(
      log_.count("Failed to cancel IO on the " + pipe + " named pipe. System error code: 1168"),
      row.failures);
}

// If the stop breaks the event pipe, the server thread disconnects as well.
INSTANTIATE_TEST_SUITE_P(
    Before, StopInTheGap,
    ::testing::Values(GapRow{"ConnectOfTheCommandPipe", GapPipes::Call::kConnect, "command", 1},
                      GapRow{"ConnectOfTheEventPipe", GapPipes::Call::kConnect, "event", 1},
                      GapRow{"ReadOfAnEvent", GapPipes::Call::kRead, "event", 2},
                      GapRow{"ReadOfAnAnswer", GapPipes::Call::kRead, "command", 1}),
    [](const auto& instance) { return instance.param.name; });

class ClientLoss : public SerialisingLink {};

// The loss of the event pipe disconnects the command pipe, which must not wait for a query.
TEST_F(ClientLoss, OfTheEventPipe_EndsAQueryThatIsAboutToRead) {
  connect();
  gaps_.holdNext(Call::kRead, "command0");
  auto check = beginCheck();
  expectCommand(AgentCommand::kQueryAtr);
  ASSERT_TRUE(gaps_.waitUntilHeld());
  pipes_.closeClient(event_);
  ASSERT_TRUE(gaps_.waitForMissedCancels("command0", 2));
  gaps_.letGo();
  ASSERT_TRUE(isReady(check)) << "the query hangs";
  EXPECT_EQ(check.get(), QueryResult::kFailure) << "ended by the loss, not by its time";
  EXPECT_TRUE(pipes_.waitForDrop(command_));
}

// If a client has gone when the server looks for it again, it is dropped only when no exchange with
// it is in progress: the rest of an exchange must not reach the next client.
TEST_F(ClientLoss, OfTheCommandPipeAlone_IsHandledAfterTheEndOfAQuery) {
  startAndWait();
  command_ = pipes_.connectClient(commandPipeName(0));
  ASSERT_NE(command_, SerialisingPipes::kNoClient);
  ASSERT_TRUE(pipes_.waitUntilQueued(eventPipeName(0))) << "the command pipe's is not accepted";
  log_.clear();
  gaps_.holdNext(Call::kRead, "command0");
  auto check = beginCheck();
  expectCommand(AgentCommand::kQueryAtr);
  ASSERT_TRUE(gaps_.waitUntilHeld());
  pipes_.closeClient(command_);
  // The wait for the other client fails, and the server thread looks for both anew.
  ASSERT_TRUE(gaps_.cancel(gaps_.handle(eventPipeName(0))));
  ASSERT_TRUE(gaps_.waitForMissedCancels("command0", 2));
  gaps_.letGo();
  EXPECT_EQ(check.get(), QueryResult::kFailure);
  ASSERT_TRUE(waitUntilStuck());
  ASSERT_NE(pipes_.connectClient(commandPipeName(0)), SerialisingPipes::kNoClient);
  EXPECT_TRUE(log_.waitFor("Command named pipe connected"));
}

// No query runs out of time here.
class EndOfExchanges : public SerialisingLink {};

// It is the only exchange without a time limit.
TEST_F(EndOfExchanges, ReleasesTheCardReadyNotification) {
  connect();
  auto notification = beginNotification();
  ASSERT_TRUE(waitUntilStuck());
  reader().endExchanges();
  EXPECT_FALSE(notification.get());
  EXPECT_EQ(log_.records(),
            std::vector<LogRecord>{error(kAborted, "Failed to send ready notification")});
}

TEST_F(EndOfExchanges, DuringATransmit_Answers6901) {
  connect();
  FakeRequest& transmit = makeRequest(number(0, number(kTransmitHeaderSize, {0, 0xA4, 4, 0})));
  auto transmitting = dispatch(&Reader::IoSmartCardTransmit, transmit);
  ASSERT_EQ(pipes_.clientRead(command_, 12).size(), 12u);
  reader().endExchanges();
  transmitting.get();
  EXPECT_EQ(transmit.answer(), number(0, number(kTransmitHeaderSize, {0x69, 0x01})));
}

TEST_F(EndOfExchanges, RefusesLaterOnesAndLeavesTheServerThreadListening) {
  connect();
  reader().endExchanges();
  Bytes bytes;
  EXPECT_EQ(reader().CheckATR(), QueryResult::kFailure);
  EXPECT_EQ(reader().QueryAtr(bytes, true), QueryResult::kFailure);
  EXPECT_EQ(queryTransmit({0, 1, 2, 3}, bytes), QueryResult::kSuccess);
  EXPECT_EQ(bytes, (Bytes{0x69, 0x01})) << "the card is absent for good";
  EXPECT_FALSE(reader().NotifyCardReady());
  EXPECT_EQ(log_.errors(), (std::vector<LogRecord>{
                               error(kAborted, "[CheckATR]Failed to write QueryAtr command"),
                               error(kAborted, "[QueryATR]Failed to write ATR request command"),
                               error(kAborted, "Failed to send ready notification")}));
  ASSERT_TRUE(pipes_.clientWrite(event_, number(7)));
  EXPECT_TRUE(log_.waitFor("Unknown event received:7"));
}

// The server thread holds the device lock during its own query.
TEST_F(EndOfExchanges, DuringAnInsertedCardsQuery_ReleasesTheDeviceLock) {
  FakeRequest& waiting = connect(10min, {});
  ASSERT_TRUE(report(AgentEvent::kCardInserted));
  ASSERT_TRUE(waitUntilStuck());
  reader().endExchanges();
  ASSERT_TRUE(waiting.waitCompleted());
  EXPECT_EQ(waiting.status(), kSucceeded) << "whatever the ATR query gives";
}

}  // namespace
}  // namespace zelta::test
