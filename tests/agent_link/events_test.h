// Shared by the tests of the agent's events: an agent on the system's pipes whose card the test
// puts in or takes out.
#pragma once

#include <gtest/gtest.h>

#include <atomic>

#include "contract/bytes.h"
#include "platform/process/error.h"
#include "tests/agent_link/link_test.h"
#include "tests/doubles/agent/card_agent.h"

namespace zelta::test {

inline const Bytes kAtr = {0x3B, 0x00};
inline constexpr std::uint32_t kBroken = platform::error::kBrokenPipe;

// The written-only flag of the reader.
struct CardReady : Reader {
  static std::uint32_t of(const Reader& reader) { return (reader.*(&CardReady::cardReady))(); }
};

class EventsTest : public LinkTest {
 protected:
  ~EventsTest() override { stop(); }

  // The agent's card: an ATR, or none.
  void setCard(bool in) { card_.store(in); }

  CardAgent::Answer answer() {
    return [this](const CardAgent::Command&) { return card_.load() ? kAtr : Bytes{}; };
  }

  // Connects with a waiting insertion request that the connection does not fulfil.
  FakeRequest& connectWithoutCard(const AgentLinkTimes& times = {}) {
    start(times);
    FakeRequest& request = waitForInsertion();
    EXPECT_TRUE(agent_.connect(answer()));
    EXPECT_TRUE(log_.waitFor("Waiting for command..."));
    return request;
  }

  // Connects with a card in and no waiting request.
  void connectWithCard() {
    setCard(true);
    start();
    FakeRequest& request = waitForInsertion();
    EXPECT_TRUE(agent_.connect(answer()));
    EXPECT_TRUE(request.waitCompleted());
    EXPECT_TRUE(log_.waitFor("Waiting for command..."));
  }

  // Waits until the driver has handled all earlier events.
  void settle() {
    const std::string text = "Unknown event received:77";
    const std::size_t before = log_.count(text);
    ASSERT_TRUE(agent_.sendEvent(77));
    ASSERT_TRUE(waitForCount(text, before + 1));
  }

  CardAgent agent_;
  std::atomic<bool> card_{false};
};

}  // namespace zelta::test
