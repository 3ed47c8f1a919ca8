// The two pipes of a reader: how they are created, connected and disconnected.
#include <gtest/gtest.h>

#include "contract/wire.h"
#include "platform/process/error.h"
#include "tests/agent_link/scripted_link.h"
#include "tests/doubles/agent/card_agent.h"
#include "tests/doubles/pipes/serialising_pipes.h"
#include "tests/support/system.h"

namespace zelta::test {
namespace {

using Records = std::vector<LogRecord>;
using Trace = std::vector<std::string>;

constexpr std::uint32_t kDenied = platform::error::kAccessDenied;

// A failed connect is not tried again within a test.
AgentLinkTimes oneAttempt() {
  AgentLinkTimes times;
  times.reconnect = std::chrono::hours(1);
  return times;
}

// A step of disconnecting that failed.
LogRecord failed(const std::string& text, int code) {
  return error(kNoError, text + " named pipe. System error code: " + std::to_string(code));
}

class PipePairTest : public ScriptedLink {
 protected:
  // Without the lines of requests and queries.
  Records pipeRecords() const {
    Records records;
    for (const LogRecord& record : log_.records()) {
      if (record.text.front() != '[') records.push_back(record);
    }
    return records;
  }
};

TEST_F(PipePairTest, Creation_IsForTheServiceAccountsOnlyAndCommandFirst) {
  start();
  ASSERT_TRUE(log_.waitFor(createdText(false)));
  EXPECT_EQ(log_.records(), (Records{info(createdText(true)), info(createdText(false))}));
  const std::vector<PipeCall> converted = pipes_.calls(PipeCallKind::kConvert);
  ASSERT_EQ(converted.size(), 1u);
  EXPECT_EQ(converted[0].text,
            "D:(D;OICI;GA;;;BG)(D;OICI;GA;;;AN)(A;OICI;GA;;;LS)(A;OICI;GA;;;SY)");
  const std::vector<PipeCall> created = pipes_.calls(PipeCallKind::kCreate);
  ASSERT_EQ(created.size(), 2u);
  EXPECT_EQ(created[0].text, commandPipeName(0));
  EXPECT_EQ(created[1].text, eventPipeName(0));
  for (const PipeCall& call : created) {
    EXPECT_EQ(call.arguments.openMode, 0x00080003u);
    EXPECT_EQ(call.arguments.pipeMode, 0u);
    EXPECT_EQ(call.arguments.maxInstances, 1u);
    EXPECT_EQ(call.arguments.outBufferSize, 0u);
    EXPECT_EQ(call.arguments.inBufferSize, 0u);
    EXPECT_EQ(call.arguments.defaultTimeout, 0u);
    EXPECT_EQ(call.arguments.securityDescriptor, pipes_.descriptor());
  }
}

// One failing step of the creation.
struct CreationRow {
  const char* name;
  PipeCallKind kind;
  std::string pipe;  // empty: the first
  std::string text;
  std::size_t creations;
};

class FailedCreation : public PipePairTest, public ::testing::WithParamInterface<CreationRow> {};

TEST_P(FailedCreation, IsLoggedAndEndsTheThread) {
  const CreationRow& row = GetParam();
  pipes_.fail(row.kind, kDenied, 1, 1, row.pipe);
  start();
  ASSERT_TRUE(log_.waitFor(row.text));
  EXPECT_EQ(log_.records().back(), error(kDenied, row.text));
  const bool commandCreated = !row.pipe.empty();
  EXPECT_EQ(log_.count(createdText(true)), commandCreated ? 1u : 0u);
  if (commandCreated) {  // and stays, without a client
    EXPECT_FALSE(reader().NotifyCardReady());
    EXPECT_EQ(log_.records().back(),
              error(platform::error::kPipeListening, "Failed to send ready notification"));
  }
  stop();
  EXPECT_EQ(pipes_.calls(PipeCallKind::kCreate).size(), row.creations);
  EXPECT_EQ(log_.count("Server thread completed"), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, FailedCreation,
    ::testing::Values(
        CreationRow{"Descriptor", PipeCallKind::kConvert, "", "DACL cannot be created", 0},
        CreationRow{"CommandPipe", PipeCallKind::kCreate, "",
                    "Failed to create command named pipe '" + commandPipeName(0) + "'", 1},
        CreationRow{"EventPipe", PipeCallKind::kCreate, eventPipeName(0),
                    "Failed to create event named pipe '" + eventPipeName(0) + "'", 2}),
    [](const auto& instance) { return instance.param.name; });

TEST_F(PipePairTest, Connecting_WaitsForCommandThenEventAndLogsEach) {
  pipes_.holdConnect(commandPipeName(0));
  pipes_.holdConnect(eventPipeName(0));
  pipes_.fail(PipeCallKind::kWrite, platform::error::kPipeListening, 1, 9);
  startCreated();
  waitForInsertion();
  ASSERT_TRUE(pipes_.waitUntilBlocked(commandPipeName(0)));
  EXPECT_TRUE(pipeRecords().empty());
  pipes_.letConnect(commandPipeName(0));
  ASSERT_TRUE(pipes_.waitUntilBlocked(eventPipeName(0)));
  EXPECT_EQ(pipeRecords(), Records{info("Command named pipe connected")});
  pipes_.letConnect(eventPipeName(0));
  ASSERT_TRUE(log_.waitFor("Event named pipe connected"));
  EXPECT_TRUE(log_.contains(info("Event named pipe connected")));
}

TEST_F(PipePairTest, ClientThatWasThereFirst_CountsAsConnectedSilently) {
  pipes_.fail(PipeCallKind::kWrite, platform::error::kPipeListening, 1, 9);
  pipes_.fail(PipeCallKind::kConnect, platform::error::kPipeConnected, 1, 1, commandPipeName(0));
  pipes_.fail(PipeCallKind::kConnect, platform::error::kIoPending, 1, 1, eventPipeName(0));
  startCreated();
  waitForInsertion();
  ASSERT_TRUE(pipes_.waitUntilBlocked(eventPipeName(0)));
  EXPECT_EQ(log_.records().back(), debug("Waiting for command..."));
  EXPECT_EQ(log_.count("Command named pipe connected"), 0u);
  EXPECT_EQ(log_.count("Event named pipe connected"), 0u);
}

TEST_F(PipePairTest, FailedCommandConnect_IsLoggedAndTheEventPipeIsNotTried) {
  pipes_.fail(PipeCallKind::kConnect, 31);
  startCreated(oneAttempt());
  waitForInsertion();
  ASSERT_TRUE(log_.waitFor("Command named pipe NOT connected"));
  EXPECT_EQ(pipeRecords(), Records{error(31, "Command named pipe NOT connected")});
  stop();
  EXPECT_EQ(pipes_.calls(PipeCallKind::kConnect).size(), 1u);
}

TEST_F(PipePairTest, FailedEventConnect_IsLogged) {
  pipes_.fail(PipeCallKind::kConnect, 31, 1, 1, eventPipeName(0));
  startCreated(oneAttempt());
  waitForInsertion();
  ASSERT_TRUE(log_.waitFor("Event named pipe NOT connected"));
  EXPECT_EQ(pipeRecords(), (Records{info("Command named pipe connected"),
                                    error(31, "Event named pipe NOT connected")}));
}

TEST_F(PipePairTest, FailedConnect_IsRetriedEvery100Milliseconds) {
  pipes_.fail(PipeCallKind::kWrite, platform::error::kPipeListening, 1, 9);
  pipes_.fail(PipeCallKind::kConnect, 31, 1, 3, commandPipeName(0));
  startCreated();
  const auto begin = std::chrono::steady_clock::now();
  waitForInsertion();
  ASSERT_TRUE(pipes_.waitUntilBlocked(eventPipeName(0)));
  EXPECT_EQ(log_.count("Command named pipe NOT connected"), 3u);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(300));
}

TEST_F(PipePairTest, ClientThatCameAndWent_IsDroppedBeforeTheNextConnect) {
  pipes_.fail(PipeCallKind::kWrite, platform::error::kPipeListening, 1, 9);
  pipes_.fail(PipeCallKind::kConnect, platform::error::kNoData, 1, 1, commandPipeName(0));
  startCreated();
  waitForInsertion();
  ASSERT_TRUE(pipes_.waitUntilBlocked(eventPipeName(0)));
  EXPECT_TRUE(log_.contains(error(platform::error::kNoData, "Command named pipe NOT connected")));
  Trace calls = trace();
  ASSERT_GE(calls.size(), 5u);
  calls.resize(5);
  EXPECT_EQ(calls, (Trace{"connect command", "cancel command", "disconnect command",
                          "connect command", "connect event"}));
}

// A creation that returns the value 0 instead of failing.
class NullHandles : public ForwardingPipes {
 public:
  NullHandles(platform::PipeApi& pipes, std::string nullName)
      : ForwardingPipes(pipes), nullName_(std::move(nullName)) {}
  platform::PipeHandleValue create(const std::string& name,
                                   const platform::PipeArguments& arguments) override {
    return name == nullName_ ? platform::noPipe() : ForwardingPipes::create(name, arguments);
  }

 private:
  const std::string nullName_;
};

TEST_F(PipePairTest, EmptyHandle_IsNotConnected) {
  for (const auto& [name, title] :
       {std::pair{commandPipeName(0), "command"}, {eventPipeName(0), "event"}}) {
    log_.clear();
    NullHandles nulls(pipes_, name);
    const ScopedPipes scoped(nulls);
    start(oneAttempt());
    waitForInsertion();
    const std::string text = std::string("Cannot connect to empty ") + title + " named pipe handle";
    ASSERT_TRUE(log_.waitFor(text));
    EXPECT_TRUE(log_.contains(error(kNoError, text)));
    stop();
    EXPECT_EQ(log_.count("Cannot connect to empty command named pipe handle") +
                  log_.count("Cannot connect to empty event named pipe handle"),
              1u);
    EXPECT_TRUE(pipes_.calls(PipeCallKind::kConnect).empty());
  }
}

TEST_F(PipePairTest, Destruction_CancelsAndDisconnectsEventThenCommandAndThenCloses) {
  startCreated();
  stop();
  EXPECT_EQ(trace(), (Trace{"cancel event", "disconnect event", "cancel command",
                            "disconnect command", "cancel event", "disconnect event", "close event",
                            "cancel command", "disconnect command", "close command"}));
}

TEST_F(PipePairTest, FailedStepsOfDisconnecting_AreLoggedAndTheNextIsTaken) {
  pipes_.fail(PipeCallKind::kCancel, 1168, 1, 2);
  pipes_.fail(PipeCallKind::kDisconnect, 233, 1, 2);
  startCreated();
  stop();
  EXPECT_EQ(log_.errors(), (Records{failed("Failed to cancel IO on the event", 1168),
                                    failed("Failed to disconnect the event", 233),
                                    failed("Failed to cancel IO on the command", 1168),
                                    failed("Failed to disconnect the command", 233)}));
}

// Pipes that serve a client before it is accepted, as on Windows.
class EarlyClients : public LinkTest {
 protected:
  ~EarlyClients() override { stop(); }

  SerialisingPipes pipes_;
  ScopedPipes scoped_{pipes_};
};

TEST_F(EarlyClients, AreAskedNothingUntilTheyAreAccepted) {
  start();
  ASSERT_TRUE(waitUntilCreated());
  ASSERT_NE(pipes_.connectClient(eventPipeName(0)), SerialisingPipes::kNoClient);
  const SerialisingPipes::Client command = pipes_.connectClient(commandPipeName(0));
  ASSERT_NE(command, SerialisingPipes::kNoClient);
  FakeRequest& insertion = waitForInsertion();
  EXPECT_TRUE(log_.contains(
      error(platform::error::kPipeListening, "[CheckATR]Failed to write QueryAtr command")))
      << "the request's check was sent";
  EXPECT_EQ(pipes_.clientRead(command, 4), number(0));
  ASSERT_TRUE(pipes_.clientWrite(command, number(2, {0x3B, 0x00})));
  ASSERT_TRUE(insertion.waitCompleted());
  EXPECT_EQ(insertion.status(), kSucceeded);
}

// On the system's own pipes.
class RealPipes : public LinkTest {
 protected:
  ~RealPipes() override { stop(); }
};

TEST_F(RealPipes, SecondReaderOfAnIndex_CannotBeCreatedAndTheFirstIsUnaffected) {
  start();
  CardAgent agent;
  waitForInsertion();
  ASSERT_TRUE(agent.connect([](const CardAgent::Command&) { return Bytes{}; }));
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  {
    PipeReader second(0, &device_);
    const std::string text = "Failed to create command named pipe '" + commandPipeName(0) + "'";
    ASSERT_TRUE(log_.waitFor(text));
    EXPECT_TRUE(log_.contains(error(kPipeNameInUse, text)));
    EXPECT_EQ(second.CheckATR(), QueryResult::kFailure);
  }
  ASSERT_TRUE(agent.sendEvent(7));
  EXPECT_TRUE(log_.waitFor("Unknown event received:7"));
}

TEST_F(RealPipes, ReadersOfTheFirstAndLastIndex_AreReachedByTheirNumbers) {
  for (const std::uint32_t index : {0u, 4294967295u}) {
    start({}, index);
    waitForInsertion();
    CardAgent agent(index);
    ASSERT_TRUE(agent.connect([](const CardAgent::Command&) { return Bytes{}; }));
    ASSERT_TRUE(log_.waitFor("Waiting for command..."));
    stop();
    log_.clear();
  }
}

TEST_F(RealPipes, AgentThatOpensTheEventPipeFirst_IsAcceptedWithoutALineAboutIt) {
  start();
  PipeClient events;
  ASSERT_TRUE(events.connectWhenListening(eventPipeName(0)));
  waitForInsertion();
  PipeClient command;
  ASSERT_TRUE(command.connectWhenListening(commandPipeName(0)));
  // The driver asks for the ATR because of the waiting request.
  EXPECT_EQ(command.readNumber(), 0u);
  ASSERT_TRUE(command.writeNumber(0));
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  EXPECT_EQ(log_.count("Event named pipe connected"), 0u);
}

// Under Wine a cancel always succeeds, but a pipe that was never opened cannot be disconnected.
TEST_F(RealPipes, IdlePipes_AreDisconnectedWhateverTheirCancelsGive) {
  start();
  PipeClient probe;
  ASSERT_TRUE(probe.connectWhenListening(eventPipeName(0)));
  log_.clear();
  stop();
  EXPECT_EQ(log_.errors(), underWine()
                               ? Records{failed("Failed to disconnect the command", 536)}
                               : (Records{failed("Failed to cancel IO on the event", 1168),
                                          failed("Failed to cancel IO on the command", 1168)}));
}

}  // namespace
}  // namespace zelta::test
