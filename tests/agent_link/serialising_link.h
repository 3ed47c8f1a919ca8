// A reader on pipes that serialise their operations like Windows' handles and do not buffer. The
// test plays the agent.
#pragma once

#include <future>
#include <utility>

#include "contract/wire.h"
#include "tests/agent_link/link_test.h"
#include "tests/doubles/pipes/gap_pipes.h"
#include "tests/doubles/pipes/serialising_pipes.h"

namespace zelta::test {

class SerialisingLink : public LinkTest {
 protected:
  using Call = GapPipes::Call;

  ~SerialisingLink() override { stop(); }

  // No limit runs out but `query`.
  static AgentLinkTimes longWaits(std::chrono::milliseconds query = std::chrono::minutes(10)) {
    AgentLinkTimes times;
    times.query = query;
    times.insertRequest = std::chrono::minutes(10);
    return times;
  }

  // Returns when an insertion request waits for the agent.
  FakeRequest& startAndWait(std::chrono::milliseconds query = std::chrono::minutes(10)) {
    start(longWaits(query));
    EXPECT_TRUE(waitUntilCreated());
    return waitForInsertion();
  }

  void openPipes() {
    ASSERT_NE(event_ = pipes_.connectClient(eventPipeName(0)), SerialisingPipes::kNoClient);
    ASSERT_NE(command_ = pipes_.connectClient(commandPipeName(0)), SerialisingPipes::kNoClient);
  }

  // Lets the reader listen to an agent with a card, or without one if the ATR is empty.
  FakeRequest& connect(std::chrono::milliseconds query = std::chrono::minutes(10),
                       const Bytes& atr = {0x3B, 0x00}) {
    FakeRequest& insertion = startAndWait(query);
    openPipes();
    answerAtr(AgentCommand::kQueryAtrReset, atr);
    EXPECT_TRUE(atr.empty() || insertion.waitCompleted());
    EXPECT_TRUE(log_.waitFor("Waiting for command..."));
    log_.clear();
    return insertion;
  }

  void expectCommand(AgentCommand command) {
    EXPECT_EQ(pipes_.clientRead(command_, 4), number(static_cast<std::uint32_t>(command)));
  }
  void answer(const Bytes& payload) {
    const Bytes bytes = number(static_cast<std::uint32_t>(payload.size()), payload);
    EXPECT_TRUE(pipes_.clientWrite(command_, bytes));
  }
  void answerAtr(AgentCommand command, const Bytes& atr = {0x3B, 0x00}) {
    expectCommand(command);
    answer(atr);
  }
  bool report(AgentEvent event) {
    return pipes_.clientWrite(event_, number(static_cast<std::uint32_t>(event)));
  }

  template <typename Body>
  static auto begin(Body body) {
    return std::async(std::launch::async, std::move(body));
  }
  std::future<QueryResult> beginCheck() {
    return begin([this] { return reader().CheckATR(); });
  }
  std::future<bool> beginNotification() {
    return begin([this] { return reader().NotifyCardReady(); });
  }
  // Runs a control on its own thread, like the framework.
  std::future<void> dispatch(void (Reader::*handler)(IoRequest*, std::size_t, std::size_t),
                             FakeRequest& request) {
    return begin([this, handler, &request] { (reader().*handler)(&request, 12, 4096); });
  }
  template <typename Result>
  static bool isReady(std::future<Result>& call) {
    return call.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
  }

  // Waits until a call on the command pipe is blocked.
  bool waitUntilStuck() { return pipes_.waitUntilQueued(commandPipeName(0)); }

  SerialisingPipes pipes_;
  GapPipes gaps_{pipes_};
  ScopedPipes scoped_{gaps_};
  SerialisingPipes::Client event_ = SerialisingPipes::kNoClient;
  SerialisingPipes::Client command_ = SerialisingPipes::kNoClient;
};

}  // namespace zelta::test
