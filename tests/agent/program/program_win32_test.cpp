// The program on Windows: the console's end, and what is not available there.
#include <windows.h>
// windows.h comes first
#include "agent/platform/console_end_win32.h"
#include "tests/agent/program/program_fixture.h"

namespace zelta::test {
namespace {

using testing::HasSubstr;

// Blocks its card in every command.
constexpr char kSlow[] = "atr 3B00\ncommand * -> 9000 after 1000s\n";

// Ctrl-C on the program's console. The test's program has no console from then on.
bool pressControlC(const AgentProcess& process) {
  FreeConsole();
  if (!AttachConsole(process.id())) return false;
  // Everybody on the console learns of it, this program too.
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

TEST_F(Program, CtlAndOtherCards_EndWithOneAndAMessage) {
  const Ended control = runProgram({"ctl", "status"});
  EXPECT_EQ(control.exitCode, 1);
  EXPECT_THAT(control.text, HasSubstr("zelta-agent: ctl is not available on Windows\n"));
  const Ended emulated = runProgram({});
  EXPECT_EQ(emulated.exitCode, 1);
  EXPECT_THAT(emulated.text, HasSubstr("error: only --backend script is available on Windows\n"));
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
