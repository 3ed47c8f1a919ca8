// Commands and answers in the agent's threads: no part of them is left in freed memory. The driver
// is this thread.
#include <memory>

#include "agent/card/script_card.h"
#include "tests/agent/program/agent_fixture.h"
#include "tests/support/freed_memory.h"

namespace zelta::test {
namespace {

TEST(Wiped, CommandsAndAnswersOfAnAgent_LeaveNoSecretInFreedMemory) {
  const PipeFolder folder;
  agent::ScriptCard card(agent::parseScript("atr 3B00\ncommand 0020* -> echo\notherwise 9000\n"),
                         true);
  Bytes verify = {0x00, 0x20, 0x00, 0x80, kSecret.size()};
  verify.insert(verify.end(), kSecret.begin(), kSecret.end());
  Bytes other = verify;
  other[1] = 0x24;

  const FreedMemoryWatch watch(FreedMemoryWatch::Threads::kOthers);
  DriverEnd driver;
  auto agent = std::make_unique<RunningAgent>(card);
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtr), (Bytes{0x3B, 0x00}));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(driver.transmit(verify)->size(), verify.size() + 2);
    EXPECT_EQ(driver.transmit(other), (Bytes{0x90, 0x00}));
  }
  // Half a command.
  EXPECT_TRUE(driver.sendNumber(kTransmitCode));
  EXPECT_TRUE(driver.sendNumber(static_cast<std::uint32_t>(verify.size() + 1)));
  EXPECT_TRUE(driver.sendBytes(verify));
  EXPECT_TRUE(driver.flush());
  driver.disconnect();
  agent->waitConnected(false);
  agent->stop();
  EXPECT_EQ(watch.found(), 0);
  EXPECT_GT(watch.freed(), 0);
}

}  // namespace
}  // namespace zelta::test
