// Cards and agents that come and go hundreds of times, and everything at once, on the system's
// pipes: each request is completed exactly once, no answer goes astray, nothing leaks or hangs.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "contract/status.h"
#include "contract/wire.h"
#include "tests/agent_link/link_test.h"
#include "tests/doubles/agent/card_agent.h"
#include "tests/support/process_state.h"
#include "tests/support/repetitions.h"

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

  // The presence request that the service would have waiting now.
  LinkRequest& waitForChange() { return card_ ? waitForRemoval() : waitForInsertion(); }

  bool reportCard(bool in) {
    card_ = in;
    return agent_.sendEvent(in ? AgentEvent::kCardInserted : AgentEvent::kCardRemoved);
  }

  CardAgent agent_;
  std::atomic<bool> card_{false};
};

TEST_F(Stress, CardInsertedAndRemovedHundredsOfTimes) {
  start();
  LinkRequest* waiting = &waitForInsertion();
  ASSERT_TRUE(agent_.connect(answer()));
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  for (int round = 0; round < repetitions(600); ++round) {
    ASSERT_TRUE(reportCard(!card_));
    ASSERT_TRUE(waiting->waitForCompletion()) << "round " << round;
    EXPECT_EQ(waiting->status(), status::kSuccess);
    EXPECT_EQ(waiting->completions(), 1);
    waiting = &waitForChange();
  }
  waiting->cancel();
  EXPECT_EQ(waiting->completions(), 1);
  EXPECT_EQ(device_.completed().size(), static_cast<std::size_t>(repetitions(600) + 1));
}

// Where in the exchange or the event the agent dies. Where a read returns with what is there, a
// part of an ATR or of an event passes for the whole: these are none of a card.
enum class Death {
  kBeforeTheAnswer,
  kWithinASize,
  kWithinAnAtr,
  kWithinAnEvent,
  kWithinASessionId
};

void dieAt(CardAgent& agent, Death death) {
  switch (death) {
    case Death::kBeforeTheAnswer:
      break;
    case Death::kWithinASize:
      EXPECT_TRUE(agent.command().write(Bytes{2, 0}));
      break;
    case Death::kWithinAnAtr:
      EXPECT_TRUE(agent.command().write(number(20, {0x00, 0x95})));
      break;
    case Death::kWithinAnEvent:
      EXPECT_TRUE(agent.command().writeNumber(0));  // an event may have to wait for its reader
      EXPECT_TRUE(agent.events().write(Bytes{77, 0}));
      break;
    case Death::kWithinASessionId:
      EXPECT_TRUE(agent.command().writeNumber(0));
      EXPECT_TRUE(agent.events().write(number(2, number(36, {'a'}))));
      break;
  }
  agent.die();
}

TEST_F(Stress, AgentsThatDieInTheMiddleOfAMessageAreReplaced) {
  const std::vector<std::string> files = openFiles();
  const std::size_t threads = threadCount();
  start();
  for (int round = 0; round < repetitions(150); ++round) {
    log_.clear();
    LinkRequest& request = waitForInsertion();
    ASSERT_TRUE(agent_.connectSilently());
    ASSERT_EQ(agent_.command().readNumber(), 0u) << "round " << round;
    dieAt(agent_, static_cast<Death>(round % 5));
    ASSERT_TRUE(request.waitForCompletion()) << "round " << round;
    EXPECT_EQ(request.status(), status::kCancelled);
    EXPECT_EQ(request.completions(), 1);
  }
  // The one that stays is served.
  LinkRequest& request = waitForInsertion();
  card_ = true;
  ASSERT_TRUE(agent_.connect(answer()));
  ASSERT_TRUE(request.waitForCompletion());
  EXPECT_EQ(request.status(), status::kSuccess);
  agent_.die();
  stop();
  EXPECT_EQ(threadCount(), threads);
  EXPECT_EQ(openFiles(), files);
}

// A card event and the cancellation of the request it fulfils meet.
TEST_F(Stress, CancellationRacingWithCompletionCompletesOnce) {
  start();
  LinkRequest& anchor = waitForInsertion();
  ASSERT_TRUE(agent_.connect(answer()));
  ASSERT_TRUE(log_.waitFor("Waiting for command..."));
  int cancelled = 0;
  for (int round = 0; round < repetitions(400); ++round) {
    LinkRequest& request = card_ ? waitForRemoval() : waitForInsertion();
    std::thread canceller([&] { request.cancel(); });
    ASSERT_TRUE(reportCard(!card_));
    canceller.join();
    ASSERT_TRUE(request.waitForCompletion()) << "round " << round;
    const bool wasCancelled = request.status() == status::kCancelled;
    EXPECT_TRUE(wasCancelled || request.status() == status::kSuccess);
    cancelled += wasCancelled ? 1 : 0;
    log_.clear();
    ASSERT_TRUE(agent_.sendEvent(77));
    ASSERT_TRUE(log_.waitFor("Unknown event received:77"));
    EXPECT_EQ(request.completions(), 1) << "round " << round;
    EXPECT_EQ(request.references(), 0) << "round " << round;
  }
  EXPECT_EQ(anchor.completions(), 1);
  RecordProperty("cancelled", cancelled);
}

TEST_F(Stress, FourThreadsTransmitWhileEventsArriveAndEachGetsItsOwnAnswer) {
  constexpr int kThreads = 4;
  constexpr int kTransmits = 250;
  card_ = true;
  start();
  LinkRequest& insertion = waitForInsertion();
  ASSERT_TRUE(agent_.connect(answer()));
  ASSERT_TRUE(insertion.waitForCompletion());
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
        LinkRequest request(device_, input);
        reader().IoSmartCardTransmit(&request, input.size(), 4096);
        Bytes expected = number(0, number(kTransmitHeaderSize));
        expected.insert(expected.end(), apdu.rbegin(), apdu.rend());
        expected.insert(expected.end(), {0x90, 0x00});
        Bytes output = request.output();
        output.resize(expected.size());
        if (request.completions() != 1 || request.information() != expected.size() ||
            output != expected) {
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
TEST_F(Stress, EverythingAtOnceLeavesNoRequestIncomplete) {
  const std::size_t threads = threadCount();
  for (int round = 0; round < 15; ++round) {
    start();
    ASSERT_TRUE(waitUntilCreated());
    std::vector<std::unique_ptr<LinkRequest>> requests;
    for (int i = 0; i < 30; ++i) requests.push_back(std::make_unique<LinkRequest>(device_));
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
      EXPECT_EQ(request->completions(), 1);
      EXPECT_EQ(request->references(), 0);
    }
  }
  EXPECT_EQ(threadCount(), threads);
}

}  // namespace
}  // namespace zelta::test
