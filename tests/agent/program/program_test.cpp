// The whole program as a process, with scripted cards.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <regex>

#include "agent/version.h"
#include "contract/bytes.h"
#include "contract/wire.h"
#include "tests/agent/link/driver_end.h"
#include "tests/agent/program/agent_process.h"
#include "tests/agent/program/script_arguments.h"

namespace zelta::test {
namespace {

using testing::HasSubstr;

constexpr int kTerminatedBySignal = 128;

class Program : public testing::Test {
 protected:
  // Arguments for a card of this script.
  std::vector<std::string> script(const std::string& text,
                                  const std::vector<std::string>& more = {}) {
    return scriptArguments(folder_.file("script"), text, more);
  }

  PipeFolder folder_;
};

TEST_F(Program, helpAndVersionEndWithZero) {
  const Ended help = runProgram({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_THAT(help.output, HasSubstr("Usage: zelta-agent"));
  EXPECT_THAT(help.output, HasSubstr("\nSignals: SIGUSR1 removes the card, "));
  EXPECT_EQ(help.error, "");
  const Ended version = runProgram({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.output, std::string("zelta-agent ") + agent::kVersion + "\n");
}

TEST_F(Program, wrongUsageEndsWithTwo) {
  const Ended ended = runProgram({"--nonsense"});
  EXPECT_EQ(ended.exitCode, 2);
  EXPECT_THAT(ended.error, HasSubstr("--nonsense"));
  EXPECT_EQ(ended.output, "");
}

TEST_F(Program, failuresEndWithOneAndAMessage) {
  const std::string control = folder_.file("ctl");
  const Ended script =
      runProgram({"--backend", "script", "--script", folder_.file("none"), "--control", control});
  EXPECT_EQ(script.exitCode, 1);
  EXPECT_THAT(script.error, HasSubstr("error: cannot read " + folder_.file("none")));
  const Ended database = runProgram({"--db", folder_.file("none"), "--control", control});
  EXPECT_EQ(database.exitCode, 1);
  EXPECT_THAT(database.error, HasSubstr("error: no card database in " + folder_.file("none")));
  const Ended pinFile = runProgram({"--pin-file", folder_.file("none"), "--control", control});
  EXPECT_EQ(pinFile.exitCode, 1);
  EXPECT_THAT(pinFile.error, HasSubstr("error: cannot read " + folder_.file("none")));
  EXPECT_FALSE(std::filesystem::exists(control));
}

TEST_F(Program, badScriptIsNamedWithItsLine) {
  std::vector<std::string> arguments = script("atr 3B00\njump\n");
  arguments.insert(arguments.end(), {"--control", folder_.file("ctl")});
  const Ended ended = runProgram(arguments);
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_THAT(ended.error,
              HasSubstr(folder_.file("script") + ": line 2: 'jump' is not a word of a script"));
}

TEST_F(Program, servesTheDriver) {
  DriverEnd driver;
  AgentProcess process(folder_, script(kPlain, {"--session-id", kSession}));
  EXPECT_EQ(driver.acceptSession(), kSession);
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtr), kAtr);
  EXPECT_TRUE(driver.notifyReady());
  EXPECT_EQ(driver.transmit(kSelect), kOk);
}

TEST_F(Program, servesTheReaderOfItsIndex) {
  DriverEnd other(0);
  DriverEnd driver(4294967295u);
  AgentProcess process(folder_, script(kPlain, {"--reader", "4294967295"}));
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
}

TEST_F(Program, sessionIdIsFreshEachTime) {
  DriverEnd driver;
  std::string first;
  {
    AgentProcess process(folder_, script(kPlain));
    first = driver.acceptSession();
    EXPECT_EQ(first.size(), 36u);
  }
  driver.disconnect();
  AgentProcess process(folder_, script(kPlain));
  EXPECT_NE(driver.acceptSession(), first);
}

TEST_F(Program, slowCardIsAnsweredForAfterFourAndAHalfSeconds) {
  DriverEnd driver;
  AgentProcess process(folder_, script("atr 3B00\n"
                                       "command 01 -> 010203 after 1000s\n"
                                       "command 02 -> 9000\n"));
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(driver.transmit({0x01}), (Bytes{0x6F, 0x00}));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4400));
  // Pulling it ends what the card is still at.
  EXPECT_EQ(process.ctl({"remove"}).exitCode, 0);
  EXPECT_EQ(process.ctl({"insert"}).exitCode, 0);
  EXPECT_EQ(driver.transmit({0x02}), kOk);
}

TEST_F(Program, cardIsReportedWithoutACommandAfterHalfASecond) {
  DriverEnd driver;
  AgentProcess process(folder_, script(kPlain));
  driver.acceptSession();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardInserted));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(400));
}

TEST_F(Program, scriptedRemovalEndsACommand) {
  DriverEnd driver;
  AgentProcess process(folder_, script("atr 3B00\ncommand 01 -> 9000 after 1000s\non 01 remove\n"));
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  EXPECT_EQ(driver.transmit({0x01}), Bytes());
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardRemoved));
}

TEST_F(Program, largestResponseReachesTheDriver) {
  DriverEnd driver;
  AgentProcess process(folder_, script("atr 3B00\ncommand 00B0* -> fill 65536\n"));
  driver.acceptSession();
  const std::optional<Bytes> response = driver.transmit({0x00, 0xB0});
  ASSERT_TRUE(response);
  EXPECT_EQ(response->size(), 65538u);
  EXPECT_EQ(response->back(), 0x00);
}

TEST_F(Program, ctlMovesTheCardAndTellsTheState) {
  DriverEnd driver;
  AgentProcess process(folder_, script(kPlain, {"--no-card", "--session-id", kSession}));
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), Bytes());
  Ended ended = process.ctl({"insert"});
  EXPECT_EQ(ended.exitCode, 0) << ended.error;
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardInserted));
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  ended = process.ctl({"status", "--json"});
  EXPECT_EQ(ended.exitCode, 0);
  EXPECT_EQ(ended.output, std::string("{\"reader\":0,\"connected\":true,\"backend\":\"script\","
                                      "\"card\":\"in\",\"atr\":\"3B00\",\"session_id\":\"") +
                              kSession + "\"}\n");
  ended = process.ctl({"insert"});
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_EQ(ended.error, "zelta-agent: a card is in already\n");
  EXPECT_EQ(process.ctl({"remove"}).exitCode, 0);
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardRemoved));
  ended = process.ctl({"status"});
  EXPECT_THAT(ended.output, HasSubstr("driver:    connected\n"));
  EXPECT_THAT(ended.output, HasSubstr("card:      out\n"));
}

TEST_F(Program, ctlWithoutAgentEndsWithOne) {
  const Ended ended = runProgram({"ctl", "status", "--control", folder_.file("ctl")});
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_EQ(ended.error, "zelta-agent: no agent is running at " + folder_.file("ctl") + "\n");
}

TEST_F(Program, signalsMoveTheCard) {
  DriverEnd driver;
  AgentProcess process(folder_, script(kPlain));
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  process.signal(SIGUSR1);
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardRemoved));
  process.signal(SIGUSR2);
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardInserted));
}

class EndingSignal : public Program, public testing::WithParamInterface<int> {};

TEST_P(EndingSignal, endsTheWaitForTheDriver) {
  AgentProcess process(folder_, script(kPlain));
  EXPECT_TRUE(std::filesystem::exists(process.control()));
  process.signal(GetParam());
  EXPECT_EQ(process.wait(), 0);
  EXPECT_FALSE(std::filesystem::exists(process.control()));
}

TEST_P(EndingSignal, endsAConnection) {
  DriverEnd driver;
  AgentProcess process(folder_, script(kPlain));
  driver.acceptSession();
  process.signal(GetParam());
  EXPECT_EQ(process.wait(), 0);
  EXPECT_TRUE(driver.waitForDrop());
}

TEST_P(EndingSignal, endsASlowCardsCommand) {
  DriverEnd driver;
  AgentProcess process(folder_, script("atr 3B00\ncommand * -> 9000 after 1000s\non * remove "
                                       "after 900s\n"));
  driver.acceptSession();
  EXPECT_TRUE(driver.sendTransmit(kSelect));
  process.log().waitFor("Connected to the driver");
  process.signal(GetParam());
  EXPECT_EQ(process.wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(Signals, EndingSignal, testing::Values(SIGINT, SIGTERM));

TEST_F(Program, secondAgentForTheSameControlPathEndsWithOne) {
  AgentProcess first(folder_, script(kPlain));
  std::vector<std::string> arguments = script(kPlain);
  arguments.insert(arguments.end(), {"--control", first.control()});
  const Ended second = runProgram(arguments);
  EXPECT_EQ(second.exitCode, 1);
  EXPECT_THAT(second.error, HasSubstr("error: another agent is running: it has the control path " +
                                      first.control()));
  EXPECT_EQ(first.ctl({"status"}).exitCode, 0);
}

TEST_F(Program, controlSocketOfAKilledAgentIsTakenOver) {
  {
    AgentProcess killed(folder_, script(kPlain));
    killed.signal(SIGKILL);
    EXPECT_EQ(killed.wait(), kTerminatedBySignal + SIGKILL);
    EXPECT_TRUE(std::filesystem::exists(killed.control()));
  }
  AgentProcess next(folder_, script(kPlain));
  EXPECT_EQ(next.ctl({"status"}).exitCode, 0);
}

#if !defined(__SANITIZE_ADDRESS__)  // the sanitizers look into memory by a pipe that they open
TEST_F(Program, runningOutOfHandlesWhileConnectingEndsWithOneAndAMessage) {
  DriverEnd driver;
  AgentProcess process(folder_, script(kPlain));
  driver.acceptSession();
  process.refuseHandles();
  driver.disconnect();
  EXPECT_EQ(process.wait(), 1);
  EXPECT_EQ(process.log().count(" error: Ending: inotify_init1: Too many open files"), 1u);
  EXPECT_FALSE(std::filesystem::exists(process.control()));
}

TEST_F(Program, runningOutOfHandlesForAControlClientEndsWithOneAndAMessage) {
  DriverEnd driver;
  AgentProcess process(folder_, script(kPlain));
  driver.acceptSession();
  process.refuseHandles();
  EXPECT_EQ(process.ctl({"status"}).exitCode, 1);
  EXPECT_EQ(process.wait(), 1);
  EXPECT_EQ(process.log().count(" error: Ending: the control socket: Too many open files"), 1u);
  EXPECT_TRUE(driver.waitForDrop());
}
#endif

TEST_F(Program, logLinesHaveTimeLevelAndText) {
  AgentProcess process(folder_, script(kPlain, {"--session-id", kSession}));
  process.signal(SIGTERM);
  EXPECT_EQ(process.wait(), 0);
  const std::regex start(
      "info: [0-9-]{10}T[0-9:]{8}\\.[0-9]{3}Z info: zelta-agent .*: reader 0, "
      "script card, session .*");
  EXPECT_EQ(process.log().matching(start), 1u);
  EXPECT_EQ(process.log().count("Z info: Ending: asked to terminate"), 1u);
}

TEST_F(Program, pinOnTheCommandLineIsWarnedOf) {
  const Ended ended =
      runProgram({"--pin", "1234", "--db", folder_.file("none"), "--control", folder_.file("ctl")});
  EXPECT_THAT(ended.error, HasSubstr("warning: The PIN stands on the command line"));
  EXPECT_THAT(ended.error, testing::Not(HasSubstr("1234")));
}

}  // namespace
}  // namespace zelta::test
