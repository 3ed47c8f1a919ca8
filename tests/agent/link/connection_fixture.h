// A connection of the agent on pipes in memory. The test plays the driver byte by byte.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "agent/link/driver_connection.h"
#include "tests/agent/running_agent.h"
#include "tests/doubles/agent/held_card.h"
#include "tests/doubles/agent/memory_pipe.h"
#include "tests/support/shared.h"

namespace zelta::agent {

inline const Bytes kAtrQuery = {0, 0, 0, 0};
inline const Bytes kAtrQueryWithoutReset = {1, 0, 0, 0};
inline const Bytes kTransmit = {2, 0, 0, 0, 1, 0, 0, 0, 0x00};
inline const Bytes kReady = {3, 0, 0, 0};
inline const Bytes kAtrAnswer = {2, 0, 0, 0, 0x3B, 0x00};
inline const Bytes kTransmitAnswer = {3, 0, 0, 0, 0x01, 0x90, 0x00};
inline const Bytes kLengthZero = {0, 0, 0, 0};
inline const Bytes kRemoved = {0, 0, 0, 0};
inline const Bytes kInserted = {1, 0, 0, 0};
inline constexpr std::size_t kSessionWrites = 3;

struct Limits {
  std::chrono::milliseconds answer = test::kLong;
  std::chrono::milliseconds driver = test::kLong;
  std::chrono::milliseconds grace = test::kLong;
  Severity logged = Severity::kDebug;
};

class Connection : public testing::Test {
 protected:
  explicit Connection(Limits limits = {}, bool cardIn = true)
      : log_(limits.logged,
             [this, sink = lines_.sink()](Severity severity, const std::string& line) {
               sink(severity, line);
               if (line.find("reported") == std::string::npos) return;
               reportsHeld_.lock().wait([](bool held) { return !held; });
             }),
        card_(cardIn),
        slot_(
            card_, [this] { threads_.cardDeparted(); }, test::failTest),
        threads_(slot_, test::kLong, test::failTest),
        connection_(
            commands_, events_, slot_, threads_,
            {{test::kSession, limits.grace, limits.driver}, limits.answer, limits.driver}, [] {},
            test::failTest, log_) {
    slot_.start();
    threads_.start();
    thread_ = std::thread([this] { connection_.serve(); });
  }
  ~Connection() override {
    card_.letGo();
    connection_.stop();
    if (thread_.joinable()) thread_.join();
    threads_.stop();
    slot_.stop();
  }

  // The answer to the command, after `before` other answers.
  Bytes answerTo(const Bytes& command, std::size_t before = 0) {
    commands_.give(command);
    return commands_.takeWrites(before + 1)[before];
  }
  // The event with this number, from 1.
  Bytes event(std::size_t number) {
    return events_.takeWrites(kSessionWrites + number)[kSessionWrites + number - 1];
  }
  // Expects that the connection ends by itself with this line in the log.
  void expectEnd(const std::string& line) {
    thread_.join();
    EXPECT_EQ(commands_.writes(), 0u);
    EXPECT_TRUE(lines_.has(line));
  }

  test::LogLines lines_;
  test::Shared<bool> reportsHeld_{false};  // if true, the log blocks lines about events
  Log log_;
  test::HeldCard card_;
  CardSlot slot_;
  CommandThreads threads_;
  test::MemoryPipe commands_;
  test::MemoryPipe events_;
  DriverConnection connection_;
  std::thread thread_;
};

}  // namespace zelta::agent
