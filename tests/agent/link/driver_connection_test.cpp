// What the real pipes do not show: the order across both pipes, and what is one write.
#include "agent/link/driver_connection.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <string>
#include <thread>

#include "contract/bytes.h"
#include "tests/agent/card/held_card.h"
#include "tests/agent/link/memory_pipe.h"
#include "tests/agent/program/running_agent.h"

namespace zelta::agent {
namespace {

using test::MemoryPipe;

const Bytes kAtrQuery = {0, 0, 0, 0};
const Bytes kTransmit = {2, 0, 0, 0, 1, 0, 0, 0, 0x00};
const Bytes kAtrAnswer = {2, 0, 0, 0, 0x3B, 0x00};
constexpr char kGivenUp[] = "error: The driver does not wait for its answer any more; dropping";
const Bytes kLengthZero = {0, 0, 0, 0};
const Bytes kRemoved = {0, 0, 0, 0};
const Bytes kInserted = {1, 0, 0, 0};

class Connection : public testing::Test {
 protected:
  explicit Connection(std::chrono::milliseconds driverLimit = test::kLong)
      : log_(LogLevel::kDebug, lines_.sink()),
        slot_(
            card_, [this] { threads_.cardDeparted(); }, test::failTest),
        threads_(slot_, test::kLong, test::failTest),
        connection_(
            commands_, events_, slot_, threads_,
            {{test::kSession, test::kLong, driverLimit}, test::kLong, driverLimit}, [] {},
            test::failTest, log_) {
    slot_.start();
    threads_.start();
    thread_ = std::thread([this] { connection_.serve(); });
  }
  ~Connection() override {
    connection_.stop();
    if (thread_.joinable()) thread_.join();
    threads_.stop();
    slot_.stop();
  }

  test::LogLines lines_;
  Log log_;
  test::HeldCard card_;
  CardSlot slot_;
  CommandThreads threads_;
  MemoryPipe commands_;
  MemoryPipe events_;
  DriverConnection connection_;
  std::thread thread_;
};

TEST_F(Connection, answerIsOneWrite) {
  commands_.give(kAtrQuery);
  EXPECT_EQ(commands_.takeWrites(1).back(), kAtrAnswer);
  commands_.give(kTransmit);
  EXPECT_EQ(commands_.takeWrites(2).back(), (Bytes{3, 0, 0, 0, 0x01, 0x90, 0x00}));
}

TEST_F(Connection, commandRightBehindANotificationIsAnswered) {
  commands_.give({3, 0, 0, 0, 2, 0, 0, 0, 4, 0, 0, 0, 0x00, 0xA4, 0x04, 0x00});
  EXPECT_EQ(commands_.takeWrites(1).back(), (Bytes{3, 0, 0, 0, 0x01, 0x90, 0x00}));
  EXPECT_EQ(card_.readyNotices(), 1);
}

TEST_F(Connection, eachFieldOfTheSessionIdIsOneWrite) {
  const std::string id = test::kSession;
  const std::vector<Bytes> expected = {{2, 0, 0, 0}, {36, 0, 0, 0}, Bytes(id.begin(), id.end())};
  EXPECT_EQ(events_.takeWrites(3), expected);
}

TEST_F(Connection, removalIsWrittenBeforeTheCommandIsAnswered) {
  commands_.give(kAtrQuery);
  commands_.takeWrites(1);
  events_.takeWrites(3);
  card_.hold();
  commands_.give(kTransmit);
  card_.waitUntilBusy();
  events_.holdWrites();
  EXPECT_EQ(slot_.remove(), "");
  events_.waitUntilWriting();
  EXPECT_EQ(commands_.writes(), 1u);  // no answer while the event is not handed over
  events_.letWrites();
  EXPECT_EQ(events_.takeWrites(4).back(), kRemoved);
  EXPECT_EQ(commands_.takeWrites(2).back(), kLengthZero);
}

TEST_F(Connection, eventsWaitWhileACommandIsAnswered) {
  events_.takeWrites(3);
  commands_.holdWrites();
  commands_.give(kAtrQuery);
  commands_.waitUntilWriting();
  EXPECT_EQ(slot_.remove(), "");
  EXPECT_EQ(slot_.insert(), "");
  EXPECT_EQ(events_.writes(), 3u);
  commands_.letWrites();
  EXPECT_EQ(commands_.takeWrites(1).back(), kAtrAnswer);
  const std::vector<Bytes> written = events_.takeWrites(5);
  EXPECT_EQ(written[3], kRemoved);
  EXPECT_EQ(written[4], kInserted);
}

TEST_F(Connection, commandBehindTheOneThatTheCardIsAtEndsTheConnectionUnanswered) {
  card_.hold();
  commands_.give(kTransmit);
  card_.waitUntilBusy();
  commands_.give(kTransmit);
  card_.letGo();
  thread_.join();
  EXPECT_EQ(commands_.writes(), 0u);
  EXPECT_TRUE(lines_.has(kGivenUp));
}

TEST_F(Connection, commandBeforeTheAnswerIsReadTakesTheAnswerBack) {
  commands_.holdWrites();
  commands_.give(kAtrQuery);
  commands_.waitUntilWriting();
  commands_.give(kTransmit);
  thread_.join();
  EXPECT_EQ(commands_.writes(), 0u);
  EXPECT_TRUE(lines_.has(kGivenUp));
}

TEST(EventsOfADouble, eventThatTimedOutIsNotHandedOverInPart) {
  MemoryPipe pipe;
  pipe.holdWrites();
  EXPECT_EQ(pipe.post(kInserted.data(), 4, SteadyClock::now()), IoResult::kTimedOut);
  pipe.letWrites();
  EXPECT_EQ(pipe.post(kRemoved.data(), 4, SteadyClock::now()), IoResult::kDone);
  EXPECT_EQ(pipe.takeWrites(1), std::vector<Bytes>{kRemoved});
}

// A pipe whose operations fail as for lack of memory or of handles.
class BrokenPipe : public MemoryPipe {
 public:
  IoResult awaitCommand() override { throw std::runtime_error("cannot read"); }
  IoResult post(const void*, std::uint32_t, std::optional<SteadyClock::time_point>) override {
    throw std::runtime_error("cannot post");
  }
};

class FailingConnection : public testing::Test {
 protected:
  FailingConnection()
      : log_(LogLevel::kDebug, lines_.sink()),
        slot_(card_, {}, test::failTest),
        threads_(slot_, test::kLong, [this](const char* problem) { told_.set_value(problem); }) {
    slot_.start();
    threads_.start();
  }
  ~FailingConnection() override { threads_.stop(); }

  // Serves until an exception ends that.
  void serve(PipeConnection& commands, PipeConnection& events, const OnFailure& onFailure) {
    DriverConnection connection(
        commands, events, slot_, threads_,
        {{test::kSession, test::kLong, test::kLong}, test::kLong, test::kLong}, [] {}, onFailure,
        log_);
    connection.serve();
  }

  test::LogLines lines_;
  Log log_;
  test::HeldCard card_;
  std::promise<std::string> told_;
  CardSlot slot_;
  CommandThreads threads_;
};

TEST_F(FailingConnection, exceptionOfACommandThreadIsToldAndLeavesNoObserverBehind) {
  BrokenPipe commands;
  MemoryPipe events;
  serve(commands, events, test::failTest);
  EXPECT_EQ(told_.get_future().get(), "cannot read");
  EXPECT_EQ(slot_.remove(), "");  // what observed it is gone
  EXPECT_EQ(slot_.insert(), "");
}

TEST_F(FailingConnection, exceptionOfAnEventThreadIsTold) {
  MemoryPipe commands;
  BrokenPipe events;
  std::thread serving(
      [&] { serve(commands, events, [this](const char* problem) { told_.set_value(problem); }); });
  EXPECT_EQ(told_.get_future().get(), "cannot post");
  commands.cancel();
  serving.join();
}

// Where the driver's time is over before anything has begun.
class OverdueConnection : public Connection {
 protected:
  OverdueConnection() : Connection(std::chrono::milliseconds(0)) {}
};

TEST_F(OverdueConnection, answerThatComesTooLateIsNotWritten) {
  commands_.give(kAtrQuery);
  thread_.join();
  EXPECT_EQ(commands_.writes(), 0u);
  EXPECT_TRUE(lines_.has("error: The answer comes too late for the driver"));
}

TEST_F(OverdueConnection, fullEventPipeEndsTheConnection) {
  events_.takeWrites(3);
  events_.holdWrites();
  commands_.give({3, 0, 0, 0});  // after it the card that is in is reported
  thread_.join();
  EXPECT_EQ(events_.writes(), 3u);
  EXPECT_TRUE(lines_.has("error: The driver does not take its events; dropping the connection"));
}

class ImpatientConnection : public Connection {
 protected:
  ImpatientConnection() : Connection(std::chrono::seconds(3)) {}
};

TEST_F(ImpatientConnection, answerThatTheDriverDoesNotTakeEndsTheConnection) {
  commands_.holdWrites();
  commands_.give(kAtrQuery);
  thread_.join();
  EXPECT_EQ(commands_.writes(), 0u);
  EXPECT_TRUE(lines_.has("error: The driver does not take its answer; dropping the connection"));
}

}  // namespace
}  // namespace zelta::agent
