#include "agent/program/agent_run.h"

#include <gtest/gtest.h>

#include <future>

#include "agent/program/options.h"
#include "tests/agent/running_agent.h"

namespace zelta::agent {
namespace {

// Ends when it is told to stop, or when it is released.
class HeldService final : public Service {
 public:
  explicit HeldService(bool stoppable) : stoppable_(stoppable) {}

  void run() override { released_.get_future().wait(); }
  void stop() override {
    if (stoppable_) release();
  }
  void release() {
    if (!done_.exchange(true)) released_.set_value();
  }
  std::string insertCard() override { return {}; }
  std::string removeCard() override { return {}; }
  Status status() const override { return {}; }

 private:
  const bool stoppable_;
  std::atomic<bool> done_{false};
  std::promise<void> released_;
};

class AgentRunTest : public testing::Test {
 protected:
  // Runs the service and stops it; returns the exit code.
  int runAndStop(HeldService& service) {
    const OnFailure onFailure = test::failTest;
    AgentRun run(service, onFailure);
    return run.stop(failure_, log_, [&](int exitCode) {
      left_ = exitCode;
      service.release();  // instead of ending the process
    });
  }

  test::LogLines lines_;
  Log log_{Severity::kDebug, lines_.sink()};
  FailureNote failure_{[] {}};
  std::optional<int> left_;
};

TEST_F(AgentRunTest, ServiceThatEnds_IsNotLeftBehind) {
  HeldService service(true);
  EXPECT_EQ(runAndStop(service), kExitDone);
  EXPECT_FALSE(left_);
  EXPECT_EQ(lines_.count(""), 0u);
}

TEST_F(AgentRunTest, Failure_IsLoggedAndDecidesTheExitCode) {
  HeldService service(true);
  failure_.take("no more memory");
  EXPECT_EQ(runAndStop(service), kExitFailed);
  EXPECT_TRUE(lines_.has("error: Ending: no more memory"));
}

TEST_F(AgentRunTest, ServiceThatDoesNotEnd_IsLeftBehindWithTheExitCode) {
  HeldService service(false);
  failure_.take("no more memory");
  runAndStop(service);
  EXPECT_EQ(left_, kExitFailed);
  EXPECT_TRUE(lines_.has("warning: The card does not end its command; leaving it behind"));
}

}  // namespace
}  // namespace zelta::agent
