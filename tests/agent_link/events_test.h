// What the tests of the agent's events share: an agent on the system's pipes whose card is in or
// not as the test says.
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

  // With an insertion request waiting that the connection does not fulfil.
  FakeRequest& connectWithoutCard(const AgentLinkTimes& times = {}) {
    start(times);
    FakeRequest& request = waitForInsertion();
    EXPECT_TRUE(agent_.connect(answer()));
    EXPECT_TRUE(log_.waitFor("Waiting for command..."));
    return request;
  }

  // With a card in and nothing waiting.
  void connectWithCard() {
    setCard(true);
    start();
    FakeRequest& request = waitForInsertion();
    EXPECT_TRUE(agent_.connect(answer()));
    EXPECT_TRUE(request.waitCompleted());
    EXPECT_TRUE(log_.waitFor("Waiting for command..."));
  }

  // The driver has dealt with everything that was reported before.
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
