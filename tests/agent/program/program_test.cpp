// The program's behaviour on every system.
#include "agent/version.h"
#include "tests/agent/program/program_fixture.h"

namespace zelta::test {
namespace {

using testing::HasSubstr;

TEST_F(Program, HelpAndVersion_EndWithZero) {
  const Ended help = runProgram({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_THAT(help.text, HasSubstr("Usage: zelta-agent"));
  const Ended version = runProgram({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.text, std::string("zelta-agent ") + agent::kVersion + "\n");
}

TEST_F(Program, WrongUsage_EndsWithTwo) {
  const Ended ended = runProgram({"--nonsense"});
  EXPECT_EQ(ended.exitCode, 2);
  EXPECT_THAT(ended.text, HasSubstr("--nonsense"));
}

TEST_F(Program, MissingScript_EndsWithTwoAndIsNamed) {
  const Ended ended =
      runProgram(withControl({"--backend", "script", "--script", folder_.file("none")}));
  EXPECT_EQ(ended.exitCode, 2);
  EXPECT_THAT(ended.text, HasSubstr("error: cannot read " + folder_.file("none")));
}

TEST_F(Program, BadScript_EndsWithTwoAndIsNamedWithItsLine) {
  const Ended ended = runProgram(script("atr 3B00\njump\n"));
  EXPECT_EQ(ended.exitCode, 2);
  EXPECT_THAT(ended.text,
              HasSubstr(folder_.file("script") + ": line 2: 'jump' is not a word of a script\n"));
}

TEST_F(Program, ScriptOfWindowsLines_ServesTheDriver) {
  DriverEnd driver;
  AgentProcess process(script("atr 3B00\r\ncommand 00A4* -> 9000\r\n", {"--session-id", kSession}));
  EXPECT_EQ(driver.acceptSession(), kSession);
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtr), kAtr);
  EXPECT_TRUE(driver.notifyReady());
  EXPECT_EQ(driver.transmit(kSelect), kOk);
}

TEST_F(Program, ReaderIndex_ChoosesThePipes) {
  DriverEnd other(0);
  DriverEnd driver(4294967295u);
  AgentProcess process(script(kPlain, {"--reader", "4294967295"}));
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
}

TEST_F(Program, SessionId_IsFreshEachTime) {
  DriverEnd driver;
  std::string first;
  {
    AgentProcess process(script(kPlain));
    first = driver.acceptSession();
    EXPECT_EQ(first.size(), 36u);
  }
  driver.disconnect();
  AgentProcess process(script(kPlain));
  EXPECT_NE(driver.acceptSession(), first);
}

TEST_F(Program, LargestResponse_ReachesTheDriver) {
  DriverEnd driver;
  AgentProcess process(script("atr 3B00\ncommand 00B0* -> fill 65536\n"));
  driver.acceptSession();
  const std::optional<Bytes> response = driver.transmit({0x00, 0xB0});
  ASSERT_TRUE(response);
  EXPECT_EQ(response->size(), 65538u);
  EXPECT_EQ(response->back(), 0x00);
}

TEST_F(Program, SlowCard_IsAnsweredForAfterFourAndAHalfSeconds) {
  DriverEnd driver;
  AgentProcess process(script(
      "atr 3B00\ncommand 01 -> 010203 after 1000s\non 01 remove after 5s\non 01 insert after 5s\n"
      "command 02 -> 9000\n"));
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(driver.transmit({0x01}), (Bytes{0x6F, 0x00}));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4400));
  // Pulling the card ends its current command.
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardRemoved));
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardInserted));
  EXPECT_EQ(driver.transmit({0x02}), kOk);
}

TEST_F(Program, Ctl_MovesTheCardAndTellsTheState) {
  DriverEnd driver;
  AgentProcess process(script(kPlain, {"--no-card", "--session-id", kSession}));
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), Bytes());
  Ended ended = ctl({"insert"});
  EXPECT_EQ(ended.exitCode, 0) << ended.text;
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardInserted));
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  ended = ctl({"status", "--json"});
  EXPECT_EQ(ended.exitCode, 0);
  EXPECT_EQ(ended.text, std::string("{\"reader\":0,\"connected\":true,\"backend\":\"script\","
                                    "\"card\":\"in\",\"atr\":\"3B00\",\"session_id\":\"") +
                            kSession +
                            "\",\"apdus\":0,\"errors\":0,\"timeouts\":0,\"reconnects\":0}\n");
  ended = ctl({"insert"});
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_EQ(ended.text, "zelta-agent: a card is in already\n");
  EXPECT_EQ(ctl({"remove"}).exitCode, 0);
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardRemoved));
  ended = ctl({"status"});
  EXPECT_THAT(ended.text, HasSubstr("driver:    connected\n"));
  EXPECT_THAT(ended.text, HasSubstr("card:      out\n"));
}

TEST_F(Program, CtlWithoutAgent_EndsWithOne) {
  const Ended ended = ctl({"status"});
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_EQ(ended.text, "zelta-agent: no agent is running at " + control() + "\n");
}

TEST_F(Program, SecondAgentForTheSameControlPath_EndsWithOne) {
  AgentProcess first(script(kPlain));
  waitReady(first);
  const Ended second = runProgram(script(kPlain));
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_THAT(second.text,
              HasSubstr("error: another agent is running: it has the control path " + control()));
  EXPECT_EQ(ctl({"status"}).exitCode, 0);
}

}  // namespace
}  // namespace zelta::test
