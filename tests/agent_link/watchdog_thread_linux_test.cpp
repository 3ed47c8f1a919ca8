// A query for which no watchdog thread can be started: a failed query, not an ended process.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>

#include "contract/wire.h"
#include "tests/agent_link/scripted_link.h"

namespace zelta::test {
namespace {

class WatchdogThreadStart : public ScriptedLink {};

// Threads with a stack larger than the address space cannot be started.
class HugeStacks {
 public:
  HugeStacks() {
    pthread_getattr_default_np(&before_);
    pthread_attr_t huge;
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, std::size_t{1} << 50);
    pthread_setattr_default_np(&huge);
    pthread_attr_destroy(&huge);
  }
  ~HugeStacks() {
    pthread_setattr_default_np(&before_);
    pthread_attr_destroy(&before_);
  }
  HugeStacks(const HugeStacks&) = delete;
  HugeStacks& operator=(const HugeStacks&) = delete;

 private:
  pthread_attr_t before_;
};

TEST_F(WatchdogThreadStart, ThatFails_FailsTheQueryAndTheNextTriesAgain) {
  pipes_.holdConnect(eventPipeName(0));
  startCreated();
  {
    const HugeStacks huge;
    waitForInsertion();
    ASSERT_TRUE(pipes_.waitUntilBlocked(eventPipeName(0))) << "the command pipe has no client";
    log_.clear();
    forgetCalls();
    EXPECT_EQ(reader().CheckATR(), QueryResult::kFailure);
    EXPECT_EQ(log_.records(),
              std::vector<LogRecord>{error(EAGAIN, "Failed to start query watchdog")});
    EXPECT_TRUE(trace().empty());
  }
  agentAnswers(number(2, {0x3B, 0x00}));
  EXPECT_EQ(reader().CheckATR(), QueryResult::kSuccess);
}

}  // namespace
}  // namespace zelta::test
