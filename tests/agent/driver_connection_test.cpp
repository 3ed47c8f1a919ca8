// What the real pipes do not show: the order across both pipes, and what is one write.
#include "agent/driver_connection.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/agent/held_card.h"
#include "tests/agent/memory_pipe.h"
#include "tests/agent/running_agent.h"

namespace zelta::agent {
namespace {

using test::heldAnswer;
using test::MemoryPipe;

const Bytes kAtrQuery = {0, 0, 0, 0};
const Bytes kTransmit = {2, 0, 0, 0, 1, 0, 0, 0, 0x00};
const Bytes kLengthZero = {0, 0, 0, 0};
const Bytes kRemoved = {0, 0, 0, 0};
const Bytes kInserted = {1, 0, 0, 0};

class Connection : public testing::Test {
 protected:
  Connection()
      : log_(LogLevel::Debug, lines_.sink()),
        slot_(card_),
        connection_(
            commands_, events_, slot_, {{test::kSession, test::kLong}, test::kLong}, [] {}, log_) {
    slot_.start();
    thread_ = std::thread([this] { connection_.serve(); });
  }
  ~Connection() override {
    connection_.stop();
    thread_.join();
    slot_.stop();
  }

  test::LogLines lines_;
  Log log_;
  test::HeldCard card_;
  CardSlot slot_;
  MemoryPipe commands_;
  MemoryPipe events_;
  DriverConnection connection_;
  std::thread thread_;
};

TEST_F(Connection, eachFieldOfAnAnswerIsOneWrite) {
  commands_.give(kAtrQuery);
  commands_.give(kTransmit);
  const std::vector<Bytes> expected = {{2, 0, 0, 0}, test::heldAtr(), {3, 0, 0, 0}, heldAnswer(1)};
  EXPECT_EQ(commands_.takeWrites(4), expected);
}

TEST_F(Connection, eachFieldOfTheSessionIdIsOneWrite) {
  const std::string id = test::kSession;
  const std::vector<Bytes> expected = {{2, 0, 0, 0}, {36, 0, 0, 0}, Bytes(id.begin(), id.end())};
  EXPECT_EQ(events_.takeWrites(3), expected);
}

TEST_F(Connection, removalIsWrittenBeforeTheCommandIsAnswered) {
  commands_.give(kAtrQuery);
  commands_.takeWrites(2);
  events_.takeWrites(3);
  card_.hold();
  commands_.give(kTransmit);
  card_.waitUntilBusy();
  events_.holdWrites();
  EXPECT_EQ(slot_.remove(), "");
  events_.waitUntilWriting();
  EXPECT_EQ(commands_.writes(), 2u);  // no answer while the event is not handed over
  events_.letWrites();
  EXPECT_EQ(events_.takeWrites(4).back(), kRemoved);
  EXPECT_EQ(commands_.takeWrites(3).back(), kLengthZero);
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
  EXPECT_EQ(commands_.takeWrites(2).back(), test::heldAtr());
  const std::vector<Bytes> written = events_.takeWrites(5);
  EXPECT_EQ(written[3], kRemoved);
  EXPECT_EQ(written[4], kInserted);
}

TEST_F(Connection, secondCommandIsNotReadBeforeTheFirstIsAnswered) {
  card_.hold();
  commands_.give(kTransmit);
  commands_.give(kTransmit);
  card_.waitUntilBusy();
  EXPECT_EQ(commands_.writes(), 0u);
  card_.letGo();
  EXPECT_EQ(commands_.takeWrites(4).back(), heldAnswer(2));
}

}  // namespace
}  // namespace zelta::agent
