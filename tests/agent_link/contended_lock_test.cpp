// The log says for what the reader waits for the device lock. The lock is held by the test, and
// then something happens that needs it.
#include <gtest/gtest.h>

#include <future>

#include "contract/wire.h"
#include "tests/agent_link/events_test.h"

namespace zelta::test {
namespace {

class ContendedLock : public EventsTest {
 protected:
  // `cause` returns although the lock is held.
  template <typename Cause>
  void expectWait(const std::string& function, Cause cause) ZELTA_NO_THREAD_SAFETY_ANALYSIS {
    log_.clear();
    device_.deviceLock().enter();
    cause();
    EXPECT_TRUE(waiter_.waitForBeginning("Locking: Function:PipeReader::" + function + ", Line:"));
    device_.deviceLock().leave();
  }
};

TEST_F(ContendedLock, ForACardThatIsReportedIn) {
  LinkRequest& insertion = connectWithoutCard();
  expectWait("handleEvent", [this] { EXPECT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted)); });
  EXPECT_TRUE(insertion.waitForCompletion());
}

TEST_F(ContendedLock, ForInsertionRequestsThatAConnectionFulfils) {
  start();
  LinkRequest& insertion = waitForInsertion();
  setCard(true);
  expectWait("unmarkAndCompleteInsertIrps", [this] { EXPECT_TRUE(agent_.connect(answer())); });
  EXPECT_TRUE(insertion.waitForCompletion());
}

TEST_F(ContendedLock, ForACardThatIsReportedOut) {
  connectWithCard();
  LinkRequest& removal = waitForRemoval();
  expectWait("handleEvent", [this] { EXPECT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved)); });
  EXPECT_TRUE(removal.waitForCompletion());
}

TEST_F(ContendedLock, ForTheLossOfTheAgent) {
  LinkRequest& insertion = connectWithoutCard();
  expectWait("handleEventPipeError", [this] { agent_.events().close(); });
  EXPECT_TRUE(insertion.waitForCompletion());
}

TEST_F(ContendedLock, ForTheShutdown) {
  LinkRequest& insertion = connectWithoutCard();
  std::future<void> down;
  expectWait("shutdown",
             [&] { down = std::async(std::launch::async, [this] { reader().shutdown(); }); });
  down.get();
  EXPECT_EQ(insertion.completions(), 1);
}

}  // namespace
}  // namespace zelta::test
