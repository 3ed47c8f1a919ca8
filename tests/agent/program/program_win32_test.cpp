// The program on Windows: the console's end, and what is not available there.
#include <windows.h>
// windows.h comes first
#include "agent/platform/console_end_win32.h"
#include "contract/control.h"
#include "tests/agent/program/program_fixture.h"

namespace zelta::test {
namespace {

using testing::HasSubstr;

// Presses Ctrl-C on the program's console. The test's program has no console afterwards.
bool pressControlC(const AgentProcess& process) {
  FreeConsole();
  if (!AttachConsole(process.id())) return false;
  // Every program on the console gets it, including this one.
  SetConsoleCtrlHandler([](DWORD) -> BOOL { return TRUE; }, TRUE);
  const bool pressed = GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0) != FALSE;
  FreeConsole();
  return pressed;
}

TEST(ConsoleAnswer, EveryEventButALogoff_EndsTheProgram) {
  using agent::ConsoleAnswer;
  EXPECT_EQ(agent::consoleAnswer(CTRL_C_EVENT), ConsoleAnswer::kEnd);
  EXPECT_EQ(agent::consoleAnswer(CTRL_BREAK_EVENT), ConsoleAnswer::kEnd);
  EXPECT_EQ(agent::consoleAnswer(CTRL_CLOSE_EVENT), ConsoleAnswer::kEndAndWait);
  EXPECT_EQ(agent::consoleAnswer(CTRL_SHUTDOWN_EVENT), ConsoleAnswer::kEndAndWait);
  EXPECT_EQ(agent::consoleAnswer(CTRL_LOGOFF_EVENT), ConsoleAnswer::kNotOurs);
}

TEST_F(Program, Help_HasWhatEndsTheAgent) {
  EXPECT_THAT(runProgram({"--help"}).text, HasSubstr("\nCtrl-C and Ctrl-Break end the agent."));
}

TEST_F(Program, DefaultControlPipes_AreFoundByCtl) {
  script(kPlain);
  const std::vector<std::string> paths = defaultControlPipes(4000000000u);
  for (const std::string& path : paths) {
    AgentProcess process({"--backend", "script", "--script", folder_.file("script"), "--reader",
                          "4000000000", "--control", path});
    waitReady(process);
    EXPECT_THAT(runProgram({"ctl", "status", "--reader", "4000000000"}).text,
                HasSubstr("reader:    4000000000\n"));
  }
  EXPECT_EQ(runProgram({"ctl", "status", "--reader", "4000000000"}).text,
            "zelta-agent: no agent is running at " + paths[0] + ", " + paths[1] +
                "; to start the service: sc start ZeltaAgent4000000000\n");
}

// Wine has the service's library but no service; Windows has no reader of that name.
TEST_F(Program, CardOfTheRealReader_NeedsTheService) {
  AgentProcess process(
      withControl({"--backend", "pcsc", "--pcsc-reader", "No such reader 0", "-v"}));
  if (underWine()) {
    const Ended ended = awaitEnd(process);
    EXPECT_EQ(ended.exitCode, 1);
    EXPECT_THAT(ended.text, HasSubstr("error: the smart card service cannot be reached: "));
    EXPECT_THAT(ended.text, HasSubstr("(0x80100001) (to start it: sc start SCardSvr)\n"));
  } else {
    EXPECT_TRUE(process.readLineWith(": reader 0, pcsc card, session "));
    process.kill();
  }
}

TEST_F(Program, Recording_IsAScriptOfWhatTheCardAnswers) {
  DriverEnd driver;
  const std::string recording = folder_.file("recording");
  AgentProcess process(script(kPlain, {"--record", recording}));
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  EXPECT_EQ(driver.transmit(kSelect), kOk);
  ASSERT_TRUE(pressControlC(process));
  EXPECT_EQ(process.wait(), 0);
  std::ifstream file(recording);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  EXPECT_THAT(text, HasSubstr("atr 3B00"));
  EXPECT_THAT(text, HasSubstr("command 00A40400 -> 9000"));
}

TEST_F(Program, OptionOfAnotherCard_EndsWithTwoAndAMessage) {
  const Ended ended = runProgram(script(kPlain, {"--db", "folder"}));
  EXPECT_EQ(ended.exitCode, 2);
  EXPECT_THAT(ended.text, HasSubstr("--db is not available on Windows\n"));
}

TEST_F(Program, ControlCWithoutADriver_EndsTheWait) {
  AgentProcess process(script(kPlain));
  ASSERT_TRUE(process.readLineWith("Waiting for the driver"));
  ASSERT_TRUE(pressControlC(process));
  const Ended ended = awaitEnd(process);
  EXPECT_EQ(ended.exitCode, 0);
  EXPECT_THAT(ended.text, HasSubstr("Z info: Ending: interrupted\n"));
}

TEST_F(Program, ControlCWhileTheCardIsSlow_EndsItsCommandAndTheConnection) {
  DriverEnd driver;
  AgentProcess process(script(kSlow));
  driver.acceptSession();
  EXPECT_TRUE(driver.sendTransmit(kSelect));
  ASSERT_TRUE(process.readLineWith("Connected to the driver"));
  ASSERT_TRUE(pressControlC(process));
  EXPECT_EQ(process.wait(), 0);
  EXPECT_TRUE(driver.waitForDrop());
}

}  // namespace
}  // namespace zelta::test
