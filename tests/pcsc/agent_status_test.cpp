#include "pcsc/agent_status.h"

#include <gtest/gtest.h>

#include "contract/control.h"
#include "platform/files/scoped_fd_linux.h"
#include "tests/doubles/agent/control_double.h"
#include "tests/support/pipes/raw_socket_linux.h"
#include "tests/support/temp_folder.h"

namespace zelta::pcsc {
namespace {

using std::chrono::milliseconds;
using test::ControlDouble;
using Clock = std::chrono::steady_clock;

// No agent on the machine serves it.
constexpr std::uint32_t kReader = 4000000007;
constexpr milliseconds kShort{50};
constexpr milliseconds kLong{120000};

class AgentStatus : public testing::Test {
 protected:
  // Asks with a long limit, which must not be used up.
  bool hasCard() {
    const auto begun = Clock::now();
    const bool has = agentHasCard(kReader, begun + kLong);
    EXPECT_LT(Clock::now() - begun, kLong);
    return has;
  }

  test::TempFolder folder_;
  const test::ScopedVariable runtime_{"XDG_RUNTIME_DIR", folder_.path().string()};
  const test::ScopedVariable pipes_{"ZELTA_PIPE_ROOT", folder_.file("pipe")};
  const std::string path_ = defaultControlPaths(kReader).front();
};

TEST_F(AgentStatus, AgentThatHasACard_IsBelievedAsLongAsItSaysSo) {
  ControlDouble agent(path_, [](int) { return ControlDouble::statusWithCard(kReader, true); });
  EXPECT_TRUE(hasCard());
  EXPECT_TRUE(hasCard());
  EXPECT_EQ(agent.questions(), 2);
}

TEST_F(AgentStatus, AgentThatHasNone_IsBelieved) {
  ControlDouble agent(path_, [](int) { return ControlDouble::statusWithCard(kReader, false); });
  EXPECT_FALSE(hasCard());
  EXPECT_EQ(agent.questions(), 1);
}

TEST_F(AgentStatus, AgentBehindTheLink_IsAskedFirst) {
  const ControlDouble other(path_, [](int) { return std::string(); });
  ControlDouble agent(controlLinkPath(folder_.file("pipe"), kReader),
                      [](int) { return ControlDouble::statusWithCard(kReader, true); });
  EXPECT_TRUE(hasCard());
  EXPECT_EQ(other.questions(), 0);
}

TEST_F(AgentStatus, NoAgent_HasNoCard) {
  EXPECT_FALSE(hasCard());
  const platform::ScopedFd dead = test::bindSocket(path_);
  EXPECT_FALSE(hasCard());
}

TEST_F(AgentStatus, AgentThatTalksNonsense_HasNoCard) {
  ControlDouble agent(path_, [](int) { return std::string(kLongestControlAnswer + 1, 'x'); });
  EXPECT_FALSE(hasCard());
}

TEST_F(AgentStatus, AgentThatStandsStill_HasNoCardAtTheDeadline) {
  const platform::ScopedFd still = test::bindSocket(path_, 1);
  const auto deadline = Clock::now() + kShort;
  EXPECT_FALSE(agentHasCard(kReader, deadline));
  EXPECT_GE(Clock::now(), deadline);
}

}  // namespace
}  // namespace zelta::pcsc
