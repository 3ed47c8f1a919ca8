// The session log ids that the agent announces.
#include <gtest/gtest.h>

#include "contract/wire.h"
#include "tests/agent_link/events_test.h"
#include "tests/support/system.h"

namespace zelta::test {
namespace {

using Records = std::vector<LogRecord>;

class SessionLogIds : public EventsTest {};

TEST_F(SessionLogIds, SessionLogIdGoesToTheLogger) {
  connectWithoutCard();
  ASSERT_TRUE(agent_.sendSessionLogId("0f8fad5b-d9cb-469f-a165-70867728950e"));
  settle();
  EXPECT_EQ(log_.sessionIds(), std::vector<std::string>{"0f8fad5b-d9cb-469f-a165-70867728950e"});
}

TEST_F(SessionLogIds, EveryByteOfASessionLogIdIsOneCharacterUnchanged) {
  connectWithoutCard();
  std::string id;
  for (int byte = 0; byte < 256; ++byte) id += static_cast<char>(byte);
  ASSERT_TRUE(agent_.sendSessionLogId(id));
  settle();
  EXPECT_EQ(log_.sessionIds(), std::vector<std::string>{id});
}

TEST_F(SessionLogIds, EmptySessionLogIdIsAnErrorAndConsumesEightBytes) {
  connectWithoutCard();
  log_.clear();
  ASSERT_TRUE(agent_.sendSessionLogId(""));
  settle();
  EXPECT_TRUE(log_.contains(
      error(static_cast<std::uint32_t>(-501), "Session log ID size is 0. Session log ID not set")));
  EXPECT_TRUE(log_.sessionIds().empty());
  EXPECT_EQ(log_.errors().size(), 2u) << "this one and the unknown event behind it";
}

TEST_F(SessionLogIds, AgentThatDiesBehindASessionLogIdsCodeIsNoticed) {
  connectWithoutCard();
  log_.clear();
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kSessionLogId));
  agent_.die();
  ASSERT_TRUE(log_.waitFor("Event named pipe read error"));
  const Records records = log_.records();
  EXPECT_EQ(
      Records(records.begin(), records.begin() + 4),
      (Records{debug("Event received"), error(kBroken, "Failed to read session log id size"),
               debug("Waiting for command..."), error(kBroken, "Event named pipe read error")}));
}

TEST_F(SessionLogIds, AgentThatDiesWithinASessionLogIdIsNoticed) {
  connectWithoutCard();
  log_.clear();
  ASSERT_TRUE(agent_.events().write(number(2, number(36, {'a', 'b'}))));
  agent_.die();
  ASSERT_TRUE(log_.waitFor("Event named pipe read error"));
  // Where a read returns with what is there, half an id passes for a whole one.
  EXPECT_EQ(log_.contains(error(kBroken, "Failed to read session log id")), kReadsWaitForAllBytes);
  EXPECT_EQ(log_.sessionIds().empty(), kReadsWaitForAllBytes);
}

// An agent that announces an id and does not send it holds nobody up but itself.
TEST_F(SessionLogIds, AnnouncedSessionLogIdDoesNotHoldUpPresenceRequests) {
  connectWithCard();
  ASSERT_TRUE(agent_.events().write(number(2, number(36))));
  LinkRequest& removal = waitForRemoval();
  EXPECT_EQ(removal.completions(), 0);
  ASSERT_TRUE(agent_.events().write(std::string(36, 'x').data(), 36));
  ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  EXPECT_TRUE(removal.waitForCompletion());
}

}  // namespace
}  // namespace zelta::test
