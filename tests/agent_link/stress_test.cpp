// Everything at once, on the system's pipes: each request is completed exactly once, no answer goes
// astray, nothing hangs.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "contract/io_controls.h"
#include "contract/wire.h"
#include "tests/agent_link/link_test.h"
#include "tests/doubles/agent/card_agent.h"
#include "tests/support/process_state.h"

namespace zelta::test {
namespace {

const Bytes kAtr = {0x3B, 0x00};

class Stress : public LinkTest {
 protected:
  ~Stress() override { stop(); }

  CardAgent::Answer answer() {
    return [this](const CardAgent::Command& command) -> Bytes {
      if (!card_) return {};
      if (command.code != AgentCommand::kQueryTransmit) return kAtr;
      Bytes echo(command.apdu.rbegin(), command.apdu.rend());
      echo.insert(echo.end(), {0x90, 0x00});
      return echo;
    };
  }

  CardAgent agent_;
  std::atomic<bool> card_{false};
};

TEST_F(Stress, FourThreadsTransmitWhileEventsArrive_EachGetsItsOwnAnswer) {
  constexpr int kThreads = 4;
  constexpr int kTransmits = 250;
  card_ = true;
  start();
  FakeRequest& insertion = waitForInsertion();
  ASSERT_TRUE(agent_.connect(answer()));
  ASSERT_TRUE(insertion.waitCompleted());
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  log_.clear();

  std::atomic<int> wrong{0};
  std::vector<std::thread> callers;
  for (std::uint8_t caller = 0; caller < kThreads; ++caller) {
    callers.emplace_back([&, caller] {
      for (int i = 0; i < kTransmits; ++i) {
        const Bytes apdu = {caller, static_cast<std::uint8_t>(i), static_cast<std::uint8_t>(i >> 8),
                            static_cast<std::uint8_t>(caller * 31 + i)};
        Bytes input = number(0, number(kTransmitHeaderSize));
        input.insert(input.end(), apdu.begin(), apdu.end());
        FakeRequest request(device_);
        request.withInput(input).withOutput(64);
        reader().IoSmartCardTransmit(&request, input.size(), 64);
        Bytes expected = number(0, number(kTransmitHeaderSize));
        expected.insert(expected.end(), apdu.rbegin(), apdu.rend());
        expected.insert(expected.end(), {0x90, 0x00});
        if (!request.completed() || request.answer() != expected) {
          ++wrong;
        }
      }
    });
  }
  int reported = 0;
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
    ASSERT_TRUE(agent_.sendSessionLogId("0f8fad5b-d9cb-469f-a165-70867728950e"));
    ++reported;
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(agent_.commands(AgentCommand::kQueryTransmit), kThreads * kTransmits);
  ASSERT_TRUE(waitForCount("Card inserted", static_cast<std::size_t>(reported)));
  ASSERT_TRUE(agent_.sendEvent(77));
  ASSERT_TRUE(log_.waitFor("Unknown event received:77"));
  EXPECT_EQ(log_.sessionIds().size(), static_cast<std::size_t>(reported));
  EXPECT_TRUE(log_.errors().size() == 1) << "only the unknown event";
}

// Presence requests, transmits, cancellations and dying agents at once; then the reader is torn
// down in the middle of it, as the device does it.
TEST_F(Stress, EverythingAtOnce_LeavesNoRequestIncomplete) {
  const std::size_t threads = threadCount();
  for (int round = 0; round < 15; ++round) {
    start();
    ASSERT_TRUE(waitUntilCreated());
    std::vector<std::unique_ptr<FakeRequest>> requests;
    for (int i = 0; i < 30; ++i) requests.push_back(std::make_unique<FakeRequest>(device_));
    reader().IoSmartCardIsPresent(requests[0].get(), 0, 0);
    std::thread poster([&] {
      for (std::size_t i = 1; i < requests.size(); ++i) {
        if (i % 2 == 0) reader().IoSmartCardIsPresent(requests[i].get(), 0, 0);
        if (i % 2 != 0) reader().IoSmartCardIsAbsent(requests[i].get(), 0, 0);
        if (i % 5 == 0) requests[i]->cancel();
      }
    });
    card_ = round % 2 == 0;
    ASSERT_TRUE(agent_.connect(answer()));
    for (int i = 0; i < 5; ++i) agent_.sendEvent(static_cast<std::uint32_t>(i % 2));
    if (round % 3 == 0) agent_.die();
    poster.join();
    stop();
    agent_.die();
    for (const auto& request : requests) {
      EXPECT_TRUE(request->completed());
    }
  }
  EXPECT_LE(threadsLeft(threads), threads);
}

}  // namespace
}  // namespace zelta::test
