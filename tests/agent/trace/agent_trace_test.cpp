// The records of an agent about its card and its driver, and its counts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "agent/trace/trace_hub.h"
#include "tests/agent/program/agent_fixture.h"
#include "tests/support/collected.h"

namespace zelta::agent {
namespace {

using Kind = TraceRecord::Kind;

// Keeps the records.
class Notes final : public TraceSink {
 public:
  bool wanted() const override { return true; }
  void take(const TraceRecord& record) override { records_.add(record); }
  // "kind command>response" of each; waits until there are `count`.
  std::string text(std::size_t count) {
    std::string text;
    for (const TraceRecord& record : records_.await(count)) {
      text += kindName(record.kind);
      const std::string bytes = toHex(record.command.get()) + ">" + toHex(record.response.get());
      text += (bytes == ">" ? "" : " " + bytes) + "\n";
    }
    return text;
  }

 private:
  test::Collected<TraceRecord> records_;
};

class AgentTrace : public test::AgentTest {
 protected:
  Notes notes_;
};

TEST_F(AgentTrace, Everything_IsToldInItsOrder) {
  test::DriverEnd driver;
  {
    test::RunningAgent running(card_, test::patientTiming(), test::failTest, makeSystemPipeClient(),
                               &notes_);
    expectServed(driver);
    EXPECT_TRUE(driver.notifyReady());
    EXPECT_EQ(driver.transmit(test::kSelect), test::heldAnswer(1));
    EXPECT_EQ(running.agent().removeCard(), "");
    EXPECT_EQ(running.agent().status().apdus, 1u);
    EXPECT_EQ(running.agent().status().errors, 0u);
    EXPECT_EQ(running.agent().status().reconnects, 0u);
  }
  EXPECT_EQ(notes_.text(7),
            "insert\n"
            "connect\n"
            "reset >3B00\n"
            "ready\n"
            "transmit 00A40400>019000\n"
            "remove\n"
            "disconnect\n");
}

TEST_F(AgentTrace, LateCard_IsCountedAndToldWithoutTheData) {
  agent::Timing timing = test::patientTiming();
  timing.answerLimit = std::chrono::milliseconds(50);
  test::DriverEnd driver;
  test::RunningAgent running(card_, timing, test::failTest, makeSystemPipeClient(), &notes_);
  EXPECT_EQ(driver.acceptSession(), test::kSession);
  card_.hold();
  EXPECT_EQ(driver.transmit({0x00, 0x20, 0x00, 0x80, 0x01, 0x31}), (Bytes{0x6F, 0x00}));
  EXPECT_EQ(running.agent().status().timeouts, 1u);
  EXPECT_THAT(notes_.text(3), testing::HasSubstr("late 00200080>\n"));
  card_.letGo();
}

TEST_F(AgentTrace, MuteCardAndSecondConnection_AreCounted) {
  test::DriverEnd driver;
  test::RunningAgent running(card_);
  expectServed(driver);
  running.waitConnected(true);
  card_.setMute(true);
  EXPECT_EQ(driver.transmit(test::kSelect), Bytes());
  EXPECT_EQ(running.agent().status().apdus, 1u);
  EXPECT_EQ(running.agent().status().errors, 1u);
  driver.disconnect();
  running.waitConnected(false);
  card_.setMute(false);
  expectServed(driver);
  running.waitConnected(true);
  EXPECT_EQ(running.agent().status().reconnects, 1u);
}

}  // namespace
}  // namespace zelta::agent
