// The whole program as a process on Windows, with scripted cards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/version.h"
#include "contract/bytes.h"
#include "contract/wire.h"
#include "tests/agent/link/driver_end.h"
#include "tests/agent/program/agent_process_win32.h"
#include "tests/agent/program/script_arguments.h"

namespace zelta::test {
namespace {

using testing::HasSubstr;

class Program : public testing::Test {
 protected:
  // Arguments for a card of this script.
  std::vector<std::string> script(const std::string& text,
                                  const std::vector<std::string>& more = {}) {
    return scriptArguments(folder_.file("script"), text, more);
  }

  TempFolder folder_;
};

TEST_F(Program, helpAndVersionEndWithZero) {
  const Ended help = runProgram({"--help"});
  EXPECT_EQ(help.exitCode, 0u);
  EXPECT_THAT(help.output, HasSubstr("Usage: zelta-agent"));
  EXPECT_THAT(help.output, HasSubstr("\nOn Windows only --backend script is available. "));
  EXPECT_EQ(help.error, "");
  const Ended version = runProgram({"--version"});
  EXPECT_EQ(version.exitCode, 0u);
  EXPECT_EQ(version.output, std::string("zelta-agent ") + agent::kVersion + "\n");
}

TEST_F(Program, wrongUsageEndsWithTwo) {
  const Ended ended = runProgram({"--nonsense"});
  EXPECT_EQ(ended.exitCode, 2u);
  EXPECT_THAT(ended.error, HasSubstr("--nonsense"));
  EXPECT_EQ(ended.output, "");
}

TEST_F(Program, whatIsNotForWindowsEndsWithOneAndAMessage) {
  const Ended control = runProgram({"ctl", "status"});
  EXPECT_EQ(control.exitCode, 1u);
  EXPECT_THAT(control.error, HasSubstr("error: ctl is not available on Windows\n"));
  const Ended emulated = runProgram({});
  EXPECT_EQ(emulated.exitCode, 1u);
  EXPECT_THAT(emulated.error, HasSubstr("error: only --backend script is available on Windows\n"));
}

TEST_F(Program, badScriptEndsWithOneAndIsNamedWithItsLine) {
  const Ended missing = runProgram({"--backend", "script", "--script", folder_.file("none")});
  EXPECT_EQ(missing.exitCode, 1u);
  EXPECT_THAT(missing.error, HasSubstr("error: cannot read " + folder_.file("none")));
  const Ended bad = runProgram(script("atr 3B00\njump\n"));
  EXPECT_EQ(bad.exitCode, 1u);
  EXPECT_THAT(bad.error,
              HasSubstr(folder_.file("script") + ": line 2: 'jump' is not a word of a script\n"));
}

TEST_F(Program, servesTheDriverWithAScriptOfWindowsLines) {
  DriverEnd driver;
  AgentProcess process(script("atr 3B00\r\ncommand 00A4* -> 9000\r\n", {"--session-id", kSession}));
  EXPECT_EQ(driver.acceptSession(), kSession);
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  EXPECT_TRUE(driver.notifyReady());
  EXPECT_EQ(driver.transmit(kSelect), kOk);
}

TEST_F(Program, scriptedRemovalEndsACommand) {
  DriverEnd driver;
  AgentProcess process(script("atr 3B00\ncommand 01 -> 9000 after 1000s\non 01 remove\n"));
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  EXPECT_EQ(driver.transmit({0x01}), Bytes());
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardRemoved));
}

TEST_F(Program, largestResponseReachesTheDriver) {
  DriverEnd driver;
  AgentProcess process(script("atr 3B00\ncommand 00B0* -> fill 65536\n"));
  driver.acceptSession();
  const std::optional<Bytes> response = driver.transmit({0x00, 0xB0});
  ASSERT_TRUE(response);
  EXPECT_EQ(response->size(), 65538u);
  EXPECT_EQ(response->back(), 0x00);
}

TEST_F(Program, controlCEndsTheWaitForTheDriver) {
  AgentProcess process(script(kPlain));
  process.log().waitFor("Waiting for the driver");
  ASSERT_TRUE(process.pressControlC());
  const Ended ended = process.wait();
  EXPECT_EQ(ended.exitCode, 0u);
  EXPECT_THAT(ended.error, HasSubstr("Z info: Ending: interrupted\n"));
}

TEST_F(Program, controlCEndsAConnectionAndASlowCardsCommand) {
  DriverEnd driver;
  AgentProcess process(script("atr 3B00\ncommand * -> 9000 after 1000s\n"));
  driver.acceptSession();
  EXPECT_TRUE(driver.sendTransmit(kSelect));
  process.log().waitFor("Connected to the driver");
  ASSERT_TRUE(process.pressControlC());
  EXPECT_EQ(process.wait().exitCode, 0u);
  EXPECT_TRUE(driver.waitForDrop());
}

}  // namespace
}  // namespace zelta::test
