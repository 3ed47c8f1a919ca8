#include "agent/link/connector.h"

#include <gtest/gtest.h>

#include <map>

#include "tests/agent/running_agent.h"
#include "tests/doubles/agent/memory_pipe.h"

namespace zelta::agent {
namespace {

using std::chrono::milliseconds;

// Opens as the test says, and notes the limits of the waits.
class ScriptedPort : public PipeClientPort {
 public:
  std::map<std::string, OpenResult> results;
  std::vector<std::optional<milliseconds>> waits;
  int watches = 0;

  void watch(const std::vector<std::string>& pipeNames) override {
    EXPECT_EQ(pipeNames, (std::vector<std::string>{"c", "e"}));
    ++watches;
  }
  OpenedPipe open(const std::string& pipeName) override {
    OpenedPipe opened;
    opened.result = results.at(pipeName);
    opened.detail = pipeName;
    if (opened.result == OpenResult::kOpened) {
      opened.connection = std::make_unique<test::MemoryPipe>();
    }
    return opened;
  }
  void waitForChange(std::optional<milliseconds> limit) override { waits.push_back(limit); }
  void cancel() override {}
};

class Connecting : public testing::Test {
 protected:
  Connecting()
      : log_(Severity::kDebug, lines_.sink()),
        connector_(port_, {"c", "e", milliseconds(10), milliseconds(40), test::kLong}, log_) {}

  bool attempt(OpenResult commands, OpenResult events) {
    port_.results = {{"c", commands}, {"e", events}};
    const PipePair pipes = connector_.attempt();
    EXPECT_EQ(pipes.commands == nullptr, pipes.events == nullptr);
    return pipes.commands != nullptr;
  }

  ScriptedPort port_;
  test::LogLines lines_;
  Log log_;
  Connector connector_;
};

using Waits = std::vector<std::optional<milliseconds>>;

TEST_F(Connecting, BothPipesOpen_ConnectsWithoutAWait) {
  EXPECT_TRUE(attempt(OpenResult::kOpened, OpenResult::kOpened));
  EXPECT_TRUE(port_.waits.empty());
}

TEST_F(Connecting, AbsentPipes_AreWaitedForWithoutATimer) {
  EXPECT_FALSE(attempt(OpenResult::kAbsent, OpenResult::kAbsent));
  EXPECT_FALSE(attempt(OpenResult::kAbsent, OpenResult::kAbsent));
  EXPECT_EQ(port_.waits, (Waits{std::nullopt, std::nullopt}));
  EXPECT_EQ(port_.watches, 2);
  EXPECT_EQ(lines_.count("info: Waiting for the driver: c"), 1u);
}

TEST_F(Connecting, Refusals_AreRetriedEverMoreSlowlyAndLoggedOnce) {
  for (int i = 0; i < 4; ++i) EXPECT_FALSE(attempt(OpenResult::kRefused, OpenResult::kRefused));
  EXPECT_EQ(port_.waits,
            (Waits{milliseconds(10), milliseconds(20), milliseconds(40), milliseconds(40)}));
  EXPECT_EQ(lines_.count("warning: The driver is gone, or serves another agent: c"), 1u);
}

TEST_F(Connecting, Failure_IsLoggedAsAnErrorAndRetried) {
  EXPECT_FALSE(attempt(OpenResult::kFailed, OpenResult::kAbsent));
  EXPECT_EQ(port_.waits, (Waits{milliseconds(10)}));
  EXPECT_EQ(lines_.count("error: Cannot connect to the driver: c"), 1u);
}

TEST_F(Connecting, EventPipeThatOpensAlone_IsHeldForTheCommandPipe) {
  EXPECT_FALSE(attempt(OpenResult::kRefused, OpenResult::kOpened));
  EXPECT_TRUE(attempt(OpenResult::kOpened, OpenResult::kRefused));  // the event pipe was held
}

TEST_F(Connecting, HeldPipe_IsTriedAtTheQuickestPace) {
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(attempt(OpenResult::kRefused, OpenResult::kRefused));
  EXPECT_FALSE(attempt(OpenResult::kRefused, OpenResult::kOpened));
  EXPECT_FALSE(attempt(OpenResult::kRefused, OpenResult::kOpened));
  EXPECT_EQ(port_.waits, (Waits{milliseconds(10), milliseconds(20), milliseconds(40),
                                milliseconds(10), milliseconds(10)}));
}

TEST_F(Connecting, PipeHeldTooLong_IsGivenBack) {
  Connector hasty(port_, {"c", "e", milliseconds(10), milliseconds(40), milliseconds(0)}, log_);
  port_.results = {{"c", OpenResult::kOpened}, {"e", OpenResult::kAbsent}};
  EXPECT_EQ(hasty.attempt().commands, nullptr);
  EXPECT_EQ(port_.waits, (Waits{milliseconds(10)}));
  port_.results = {{"c", OpenResult::kRefused}, {"e", OpenResult::kOpened}};
  EXPECT_EQ(hasty.attempt().commands, nullptr);
}

TEST_F(Connecting, ConnectionThatWasNeverAccepted_IsNotFollowedAtOnce) {
  connector_.connectionEnded(false);
  connector_.connectionEnded(false);
  EXPECT_EQ(port_.waits, (Waits{milliseconds(10), milliseconds(20)}));
  connector_.connectionEnded(true);
  EXPECT_FALSE(attempt(OpenResult::kRefused, OpenResult::kRefused));
  EXPECT_EQ(port_.waits.back(), milliseconds(10));
}

TEST(BackoffTest, Waits_DoubleUpToTheLongest) {
  Backoff backoff(milliseconds(10), milliseconds(50));
  for (const int wait : {10, 20, 40, 50, 50}) EXPECT_EQ(backoff.next(), milliseconds(wait));
  backoff.reset();
  EXPECT_EQ(backoff.next(), milliseconds(10));
}

}  // namespace
}  // namespace zelta::agent
