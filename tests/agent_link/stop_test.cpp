// A reader is destroyed promptly whatever its server thread is doing, on the system's pipes and on
// pipes that serialise their operations as Windows' handles do.
#include <gtest/gtest.h>

#include <future>

#include "contract/bytes.h"
#include "contract/wire.h"
#include "tests/agent_link/link_test.h"
#include "tests/doubles/pipes/gap_pipes.h"
#include "tests/doubles/pipes/serialising_pipes.h"
#include "tests/support/pipe_client.h"
#include "tests/support/process_state.h"
#include "tests/support/repetitions.h"

namespace zelta::test {
namespace {

using namespace std::chrono_literals;

// A driver whose way out takes longer is ended by the system, together with its host.
constexpr std::chrono::seconds kHostLimit{60};

// Nothing of what a stop ends is ended by its own time.
AgentLinkTimes longWaits() {
  AgentLinkTimes times;
  times.query = 10min;
  times.insertRequest = 10min;
  return times;
}

// An agent's two ends, without behaviour.
class Side {
 public:
  virtual ~Side() = default;
  virtual bool openEvent() = 0;
  virtual bool openCommand() = 0;
  virtual bool report(const Bytes& bytes) = 0;
  virtual bool answer(const Bytes& bytes) = 0;
  virtual Bytes readCommand(std::size_t size) = 0;
  virtual void close() = 0;
};

class RealSide final : public Side {
 public:
  bool openEvent() override { return event_.connectWhenListening(eventPipeName(0)); }
  bool openCommand() override { return command_.connectWhenListening(commandPipeName(0)); }
  bool report(const Bytes& bytes) override { return event_.write(bytes); }
  bool answer(const Bytes& bytes) override { return command_.write(bytes); }
  Bytes readCommand(std::size_t size) override { return command_.read(size); }
  void close() override {
    event_.close();
    command_.close();
  }

 private:
  PipeClient event_;
  PipeClient command_;
};

class SerialisingSide final : public Side {
 public:
  bool openEvent() override { return (event_ = pipes_.connectClient(eventPipeName(0))) != 0; }
  bool openCommand() override { return (command_ = pipes_.connectClient(commandPipeName(0))) != 0; }
  bool report(const Bytes& bytes) override { return pipes_.clientWrite(event_, bytes); }
  bool answer(const Bytes& bytes) override { return pipes_.clientWrite(command_, bytes); }
  Bytes readCommand(std::size_t size) override { return pipes_.clientRead(command_, size); }
  void close() override {
    pipes_.closeClient(event_);
    pipes_.closeClient(command_);
  }

  SerialisingPipes& pipes() { return pipes_; }

 private:
  SerialisingPipes pipes_;
  ScopedPipes scoped_{pipes_};
  SerialisingPipes::Client event_ = SerialisingPipes::kNoClient;
  SerialisingPipes::Client command_ = SerialisingPipes::kNoClient;
};

template <typename Pipes>
class Stop : public LinkTest {
 protected:
  static constexpr int kRounds = 200;

  ~Stop() override { stop(); }

  // `reach` brings a new reader to a state; then it is destroyed.
  template <typename Reach>
  void repeat(Reach reach) {
    for (int round = 0; round < repetitions(kRounds); ++round) {
      log_.clear();
      start(longWaits());
      ASSERT_NO_FATAL_FAILURE(reach());
      const auto begin = std::chrono::steady_clock::now();
      stop();
      EXPECT_LT(std::chrono::steady_clock::now() - begin, kHostLimit) << "round " << round;
      EXPECT_EQ(log_.count("Server thread completed"), 1u) << "round " << round;
      side_.close();
      if (round == 0) {
        files_ = openFiles();
        threads_ = threadCount();
      }
    }
    EXPECT_EQ(openFiles(), files_);
    EXPECT_EQ(threadCount(), threads_);
  }

  void waitForCardAndConnect() {
    ASSERT_TRUE(waitUntilCreated());
    waitForInsertion();
    ASSERT_TRUE(side_.openEvent());
    ASSERT_TRUE(side_.openCommand());
    ASSERT_EQ(side_.readCommand(4), number(0));
  }

  void listen() {
    ASSERT_NO_FATAL_FAILURE(waitForCardAndConnect());
    ASSERT_TRUE(side_.answer(number(0)));
    ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  }

  Pipes side_;

 private:
  std::vector<std::string> files_;
  std::size_t threads_ = 0;
};

using Sides = ::testing::Types<RealSide, SerialisingSide>;
TYPED_TEST_SUITE(Stop, Sides);

TYPED_TEST(Stop, JustAfterTheStart) {
  this->repeat([] {});
}

TYPED_TEST(Stop, WaitingForAnInsertionRequest) {
  this->repeat([this] { ASSERT_TRUE(this->waitUntilCreated()); });
}

TYPED_TEST(Stop, JustAfterAnInsertionRequest) {
  this->repeat([this] { this->waitForInsertion(); });
}

TYPED_TEST(Stop, WithOnlyTheCommandPipeOpened) {
  this->repeat([this] {
    ASSERT_TRUE(this->waitUntilCreated());
    this->waitForInsertion();
    ASSERT_TRUE(this->side_.openCommand());
  });
}

TYPED_TEST(Stop, QueryingTheAtrOfANewConnection) {
  this->repeat([this] { ASSERT_NO_FATAL_FAILURE(this->waitForCardAndConnect()); });
}

TYPED_TEST(Stop, Listening) {
  this->repeat([this] { ASSERT_NO_FATAL_FAILURE(this->listen()); });
}

// The device lock is held during this query, and shutting down needs it where a request waits.
TYPED_TEST(Stop, QueryingTheAtrOfAnInsertedCard) {
  this->repeat([this] {
    ASSERT_NO_FATAL_FAILURE(this->listen());
    ASSERT_TRUE(this->side_.report(number(1)));
    ASSERT_EQ(this->side_.readCommand(4), number(0));
  });
}

TYPED_TEST(Stop, ReadingASessionLogId) {
  this->repeat([this] {
    ASSERT_NO_FATAL_FAILURE(this->listen());
    ASSERT_TRUE(this->side_.report(number(2, number(36))));
    ASSERT_TRUE(this->log_.waitFor("Event received"));
  });
}

TYPED_TEST(Stop, JustAfterTheLossOfTheAgent) {
  this->repeat([this] {
    ASSERT_NO_FATAL_FAILURE(this->listen());
    this->side_.close();
  });
}

// The stop comes just before the server thread enters a call: nothing is there to cancel, and on
// these pipes a disconnect waits behind a call that has begun.
class StopInTheGap : public LinkTest {
 protected:
  ~StopInTheGap() override { stop(); }

  // `failures` is how many disconnects find nothing to cancel: the destructor's, and the server
  // thread's own where the stop breaks its event pipe.
  void expectStopHeldIn(const std::string& nameEnd, std::size_t failures = 1) {
    ASSERT_TRUE(gaps_.waitUntilHeld());
    auto stopped = std::async(std::launch::async, [this] { destroy(); });
    ASSERT_TRUE(gaps_.waitForMissedCancels(nameEnd, 2));
    gaps_.letGo();
    ASSERT_EQ(stopped.wait_for(30s), std::future_status::ready) << "the reader hangs";
    EXPECT_EQ(log_.count("Server thread completed"), 1u);
    // Of one disconnect's cancels only the first is reported.
    const std::string which = nameEnd.substr(0, nameEnd.size() - 1);
    EXPECT_EQ(
        log_.count("Failed to cancel IO on the " + which + " named pipe. System error code: 1168"),
        failures);
  }

  void connectClients() {
    event_ = pipes_.connectClient(eventPipeName(0));
    command_ = pipes_.connectClient(commandPipeName(0));
    ASSERT_NE(event_, SerialisingPipes::kNoClient);
    ASSERT_NE(command_, SerialisingPipes::kNoClient);
  }

  void begin(GapPipes::Call call, const std::string& nameEnd) {
    gaps_.holdNext(call, nameEnd);
    start(longWaits());
    ASSERT_TRUE(waitUntilCreated());
    waitForInsertion();
  }

  SerialisingPipes pipes_;
  GapPipes gaps_{pipes_};
  ScopedPipes scoped_{gaps_};
  SerialisingPipes::Client event_ = SerialisingPipes::kNoClient;
  SerialisingPipes::Client command_ = SerialisingPipes::kNoClient;
};

TEST_F(StopInTheGap, BeforeTheCommandPipeIsConnected) {
  begin(GapPipes::Call::kConnect, "command0");
  expectStopHeldIn("command0");
}

TEST_F(StopInTheGap, BeforeTheEventPipeIsConnected) {
  begin(GapPipes::Call::kConnect, "event0");
  command_ = pipes_.connectClient(commandPipeName(0));
  ASSERT_NE(command_, SerialisingPipes::kNoClient);
  expectStopHeldIn("event0");
}

TEST_F(StopInTheGap, BeforeAnEventIsRead) {
  begin(GapPipes::Call::kRead, "event0");
  connectClients();
  ASSERT_EQ(pipes_.clientRead(command_, 4), number(0));
  ASSERT_TRUE(pipes_.clientWrite(command_, number(0)));
  expectStopHeldIn("event0", 2);
}

TEST_F(StopInTheGap, BeforeTheAnswerOfAQueryIsRead) {
  begin(GapPipes::Call::kRead, "command0");
  connectClients();
  ASSERT_EQ(pipes_.clientRead(command_, 4), number(0));
  expectStopHeldIn("command0");
}

// The loss of the event pipe disconnects the command pipe, which must not wait behind a query.
TEST_F(StopInTheGap, LostEventPipeEndsAQueryThatIsAboutToRead) {
  start(longWaits());
  ASSERT_TRUE(waitUntilCreated());
  waitForInsertion();
  connectClients();
  ASSERT_EQ(pipes_.clientRead(command_, 4), number(0));
  ASSERT_TRUE(pipes_.clientWrite(command_, number(0)));
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  gaps_.holdNext(GapPipes::Call::kRead, "command0");
  auto check = std::async(std::launch::async, [this] { return reader().CheckATR(); });
  ASSERT_EQ(pipes_.clientRead(command_, 4), number(1));
  ASSERT_TRUE(gaps_.waitUntilHeld());
  pipes_.closeClient(event_);
  ASSERT_TRUE(gaps_.waitForMissedCancels("command0", 2));
  gaps_.letGo();
  ASSERT_EQ(check.wait_for(30s), std::future_status::ready) << "the query hangs";
  EXPECT_EQ(check.get(), QueryResult::kFailure) << "ended by the loss, not by its time";
  EXPECT_TRUE(pipes_.waitForDrop(command_));
}

// A client that has gone when it is looked for anew is dropped only when no exchange with it is
// under way: what is left of one must not reach the next client.
TEST_F(StopInTheGap, VanishedClientIsDroppedBehindTheEndOfAQueryOfItsOwn) {
  start(longWaits());
  ASSERT_TRUE(waitUntilCreated());
  waitForInsertion();
  command_ = pipes_.connectClient(commandPipeName(0));
  ASSERT_NE(command_, SerialisingPipes::kNoClient);
  ASSERT_TRUE(pipes_.waitUntilQueued(eventPipeName(0))) << "the command pipe's is not accepted";
  log_.clear();
  gaps_.holdNext(GapPipes::Call::kRead, "command0");
  auto check = std::async(std::launch::async, [this] { return reader().CheckATR(); });
  ASSERT_EQ(pipes_.clientRead(command_, 4), number(1));
  ASSERT_TRUE(gaps_.waitUntilHeld());
  pipes_.closeClient(command_);
  // The wait for the other client fails, and the server thread looks for both anew.
  ASSERT_TRUE(gaps_.cancel(gaps_.handle(eventPipeName(0))));
  ASSERT_TRUE(gaps_.waitForMissedCancels("command0", 2));
  gaps_.letGo();
  EXPECT_EQ(check.get(), QueryResult::kFailure);
  ASSERT_TRUE(pipes_.waitUntilQueued(commandPipeName(0)));
  ASSERT_NE(pipes_.connectClient(commandPipeName(0)), SerialisingPipes::kNoClient);
  EXPECT_TRUE(log_.waitFor("Command named pipe connected"));
}

}  // namespace
}  // namespace zelta::test
