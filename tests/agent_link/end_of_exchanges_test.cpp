// The end of exchanges releases whoever is stuck with an agent that does nothing, in every call and
// just before it, on pipes that serialise their operations as Windows' handles do. No query is
// ended by its own time here.
#include <gtest/gtest.h>

#include <future>

#include "contract/bytes.h"
#include "contract/status.h"
#include "contract/wire.h"
#include "platform/process/error.h"
#include "tests/agent_link/link_test.h"
#include "tests/doubles/pipes/gap_pipes.h"
#include "tests/doubles/pipes/serialising_pipes.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t kAborted = platform::error::kOperationAborted;

class EndOfExchanges : public LinkTest {
 protected:
  ~EndOfExchanges() override { stop(); }

  LinkRequest& startAndWait() {
    AgentLinkTimes times;
    times.query = 10min;
    start(times);
    EXPECT_TRUE(waitUntilCreated());
    return waitForInsertion();
  }

  // Both pipes, the driver's ATR query answered with a card or none.
  LinkRequest& connect(const Bytes& atr = {0x3B, 0x00}) {
    LinkRequest& request = startAndWait();
    EXPECT_NE(event_ = pipes_.connectClient(eventPipeName(0)), SerialisingPipes::kNoClient);
    EXPECT_NE(command_ = pipes_.connectClient(commandPipeName(0)), SerialisingPipes::kNoClient);
    EXPECT_EQ(pipes_.clientRead(command_, 4), number(0));
    EXPECT_TRUE(pipes_.clientWrite(command_, number(static_cast<std::uint32_t>(atr.size()), atr)));
    EXPECT_TRUE(log_.waitFor("Waiting for command..."));
    log_.clear();
    return request;
  }

  bool waitUntilStuck() { return pipes_.waitUntilQueued(commandPipeName(0)); }

  std::future<QueryResult> beginCheck() {
    return std::async(std::launch::async, [this] { return reader().CheckATR(); });
  }

  // For a check that is stuck, or about to be, in a call on the command pipe.
  void expectReleased(std::future<QueryResult> check, const std::string& failure) {
    ASSERT_TRUE(waitUntilStuck());
    reader().endExchanges();
    EXPECT_EQ(check.get(), QueryResult::kFailure);
    EXPECT_EQ(log_.records(), std::vector<LogRecord>{error(kAborted, failure)});
  }

  // Held just before the call that a check makes; `read` is whether the agent reads the command.
  void expectEndHeldBefore(GapPipes::Call call, bool read, const std::string& failure) {
    connect();
    gaps_.holdNext(call, "command0");
    std::future<QueryResult> check = beginCheck();
    if (read) {
      EXPECT_EQ(pipes_.clientRead(command_, 4), number(1));
    }
    ASSERT_TRUE(gaps_.waitUntilHeld());
    auto end = std::async(std::launch::async, [this] { reader().endExchanges(); });
    ASSERT_TRUE(gaps_.waitForMissedCancels("command0", 2));
    gaps_.letGo();
    EXPECT_EQ(check.get(), QueryResult::kFailure);
    end.get();
    EXPECT_EQ(log_.records(), std::vector<LogRecord>{error(kAborted, failure)});
  }

  SerialisingPipes pipes_;
  GapPipes gaps_{pipes_};
  ScopedPipes scoped_{gaps_};
  SerialisingPipes::Client event_ = SerialisingPipes::kNoClient;
  SerialisingPipes::Client command_ = SerialisingPipes::kNoClient;
};

TEST_F(EndOfExchanges, ReleasesAWrite) {
  connect();
  expectReleased(beginCheck(), "[CheckATR]Failed to write QueryAtr command");
}

// It is the one exchange without a time limit.
TEST_F(EndOfExchanges, ReleasesTheCardReadyNotification) {
  connect();
  auto notification = std::async(std::launch::async, [this] { return reader().NotifyCardReady(); });
  ASSERT_TRUE(waitUntilStuck());
  reader().endExchanges();
  EXPECT_FALSE(notification.get());
  EXPECT_EQ(log_.records(),
            std::vector<LogRecord>{error(kAborted, "Failed to send ready notification")});
}

TEST_F(EndOfExchanges, ReleasesAFlush) {
  pipes_.bufferWrites(4096);
  connect();
  // The flush's own result is ignored; the read behind it is not begun.
  expectReleased(beginCheck(), "[CheckATR]Failed to read ATR size");
}

TEST_F(EndOfExchanges, ReleasesARead) {
  connect();
  gaps_.holdNext(GapPipes::Call::kRead, "command0");
  std::future<QueryResult> check = beginCheck();
  EXPECT_EQ(pipes_.clientRead(command_, 4), number(1));
  ASSERT_TRUE(gaps_.waitUntilHeld());
  gaps_.letGo();  // what is stuck from here on is the read
  expectReleased(std::move(check), "[CheckATR]Failed to read ATR size");
}

TEST_F(EndOfExchanges, ReleasesAWriteThatIsJustAboutToBegin) {
  expectEndHeldBefore(GapPipes::Call::kWrite, false, "[CheckATR]Failed to write QueryAtr command");
}

TEST_F(EndOfExchanges, ReleasesAFlushThatIsJustAboutToBegin) {
  expectEndHeldBefore(GapPipes::Call::kFlush, true, "[CheckATR]Failed to read ATR size");
}

TEST_F(EndOfExchanges, ReleasesAReadThatIsJustAboutToBegin) {
  expectEndHeldBefore(GapPipes::Call::kRead, true, "[CheckATR]Failed to read ATR size");
}

TEST_F(EndOfExchanges, RefusesLaterOnes) {
  connect();
  reader().endExchanges();
  Bytes bytes;
  EXPECT_EQ(reader().CheckATR(), QueryResult::kFailure);
  EXPECT_EQ(reader().QueryAtr(bytes, true), QueryResult::kFailure);
  EXPECT_EQ(reader().QueryTransmit({0, 1, 2, 3}, bytes), QueryResult::kSuccess);
  EXPECT_EQ(bytes, (Bytes{0x69, 0x01})) << "the card is absent for good";
  EXPECT_FALSE(reader().NotifyCardReady());
  EXPECT_EQ(log_.errors(), (std::vector<LogRecord>{
                               error(kAborted, "[CheckATR]Failed to write QueryAtr command"),
                               error(kAborted, "[QueryATR]Failed to write ATR request command"),
                               error(kAborted, "Failed to send ready notification")}));
}

// The server thread holds the device lock during its own query.
TEST_F(EndOfExchanges, ReleasesTheServerThreadAndTheDeviceLock) {
  LinkRequest& waiting = connect({});
  ASSERT_TRUE(pipes_.clientWrite(event_, number(1)));
  ASSERT_TRUE(waitUntilStuck());
  reader().endExchanges();
  ASSERT_TRUE(waiting.waitForCompletion());
  EXPECT_EQ(waiting.status(), status::kSuccess) << "whatever the ATR query gives";
}

TEST_F(EndOfExchanges, LeavesTheServerThreadListening) {
  connect();
  reader().endExchanges();
  ASSERT_TRUE(pipes_.clientWrite(event_, number(7)));
  EXPECT_TRUE(log_.waitFor("Unknown event received:7"));
}

TEST_F(EndOfExchanges, LeavesTheServerThreadWaitingForAnAgent) {
  startAndWait();
  ASSERT_TRUE(waitUntilStuck());
  reader().endExchanges();
  ASSERT_NE(pipes_.connectClient(commandPipeName(0)), SerialisingPipes::kNoClient);
  EXPECT_TRUE(log_.waitFor("Command named pipe connected"));
  EXPECT_EQ(log_.count("Command named pipe NOT connected"), 0u);
}

// The system would queue it behind the wait for the next agent.
TEST_F(EndOfExchanges, IsNotNeededByAnExchangeAfterTheLossOfAnAgent) {
  connect();
  pipes_.closeClient(event_);
  ASSERT_TRUE(pipes_.waitForDrop(command_));
  waitForInsertion();
  ASSERT_TRUE(waitUntilStuck());
  log_.clear();
  EXPECT_EQ(reader().CheckATR(), QueryResult::kFailure);
  EXPECT_EQ(log_.records(),
            std::vector<LogRecord>{error(platform::error::kPipeListening,
                                         "[CheckATR]Failed to write QueryAtr command")});
  ASSERT_NE(pipes_.connectClient(commandPipeName(0)), SerialisingPipes::kNoClient);
  ASSERT_TRUE(pipes_.waitUntilQueued(eventPipeName(0)));
  ASSERT_NE(pipes_.connectClient(eventPipeName(0)), SerialisingPipes::kNoClient);
  EXPECT_TRUE(log_.waitFor("Event named pipe connected"));
}

}  // namespace
}  // namespace zelta::test
