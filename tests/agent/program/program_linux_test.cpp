// The program on Linux: control socket, signals, readiness, lack of file descriptors.
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <regex>

#include "platform/files/scoped_fd_linux.h"
#include "tests/agent/program/program_fixture.h"

namespace zelta::test {
namespace {

using testing::HasSubstr;

void sendSignal(const AgentProcess& process, int number) {
  ASSERT_EQ(::kill(static_cast<pid_t>(process.id()), number), 0);
}

TEST_F(Program, HelpAndErrors_GoToTheirOwnStreams) {
  const auto textOf = [](const std::string& command) {
    ChildProcess shell("/bin/sh", {"-c", std::string(ZELTA_AGENT_PROGRAM) + " " + command});
    return awaitEnd(shell).text;
  };
  EXPECT_THAT(textOf("--help"), HasSubstr("\nSignals: SIGUSR1 removes the card, "));
  EXPECT_EQ(textOf("--help >/dev/null"), "");
  EXPECT_EQ(textOf("--nonsense 2>/dev/null"), "");
  EXPECT_EQ(textOf("ctl status --control " + control() + " 2>/dev/null"), "");
}

TEST_F(Program, MissingFile_EndsWithTwoAndAMessage) {
  const Ended database = runProgram(withControl({"--db", folder_.file("none")}));
  EXPECT_EQ(database.exitCode, 2);
  EXPECT_THAT(database.text, HasSubstr("error: no card database in " + folder_.file("none")));
  const Ended pinFile = runProgram(withControl({"--pin-file", folder_.file("none")}));
  EXPECT_EQ(pinFile.exitCode, 2);
  EXPECT_THAT(pinFile.text, HasSubstr("error: cannot read " + folder_.file("none")));
  EXPECT_FALSE(std::filesystem::exists(control()));
}

TEST_F(Program, RemoteCardWithoutItsOtherEnd_SaysHelloAndEndsWithAMessage) {
  const std::string command =
      std::string(ZELTA_AGENT_PROGRAM) + " --backend remote --control " + control() + " </dev/null";
  ChildProcess log("/bin/sh", {"-c", command + " 2>&1 >/dev/null"});
  const Ended ended = awaitEnd(log);
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_THAT(ended.text, HasSubstr("error: no card: the line is broken\n"));
  EXPECT_FALSE(std::filesystem::exists(control()));
  ChildProcess frames("/bin/sh", {"-c", command + " 2>/dev/null | od -An -c"});
  EXPECT_THAT(awaitEnd(frames).text, HasSubstr("Z   L   T   A 001"));
}

TEST_F(Program, PinOnTheCommandLine_IsWarnedOfAndNotRepeated) {
  const Ended ended = runProgram(withControl({"--pin", "1234", "--db", folder_.file("none")}));
  EXPECT_THAT(ended.text, HasSubstr("warning: The PIN stands on the command line, where others can "
                                    "read it; use --pin-file"));
  EXPECT_THAT(ended.text, testing::Not(HasSubstr("1234")));
}

TEST_F(Program, LogLines_HaveTimeSeverityAndText) {
  AgentProcess process(script(kPlain, {"--session-id", kSession}));
  const std::optional<std::string> first = process.readLine();
  const std::regex form(
      "[0-9-]{10}T[0-9:]{8}\\.[0-9]{3}Z info: zelta-agent .*: reader 0, script card, session .*");
  EXPECT_TRUE(std::regex_match(first.value_or(""), form)) << *first;
  sendSignal(process, SIGTERM);
  const Ended ended = awaitEnd(process);
  EXPECT_EQ(ended.exitCode, 0);
  EXPECT_THAT(ended.text, HasSubstr("Z info: Ending: asked to terminate\n"));
}

TEST_F(Program, Readiness_IsToldToSystemd) {
  const std::string path = folder_.file("notify");
  const platform::ScopedFd notify(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(notify.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const ScopedVariable variable("NOTIFY_SOCKET", path);
  AgentProcess process(script(kPlain));
  std::string told;
  while (told.find("READY=1") == std::string::npos) {
    std::array<char, 256> message{};
    const ssize_t size = read(notify.get(), message.data(), message.size());
    ASSERT_GT(size, 0);
    told.append(message.data(), static_cast<std::size_t>(size));
  }
  EXPECT_THAT(told, HasSubstr("STATUS=Waiting for the driver"));
  EXPECT_TRUE(std::filesystem::exists(control()));
}

TEST_F(Program, UserSignals_MoveTheCard) {
  DriverEnd driver;
  AgentProcess process(script(kPlain));
  waitReady(process);
  driver.acceptSession();
  EXPECT_EQ(driver.queryAtr(AgentCommand::kQueryAtrReset), kAtr);
  sendSignal(process, SIGUSR1);
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardRemoved));
  sendSignal(process, SIGUSR2);
  EXPECT_EQ(driver.readEvent(), event(AgentEvent::kCardInserted));
}

class EndingSignal : public Program, public testing::WithParamInterface<int> {};

TEST_P(EndingSignal, NoDriverIsThere_EndsTheWait) {
  AgentProcess process(script(kPlain));
  waitReady(process);
  EXPECT_TRUE(std::filesystem::exists(control()));
  sendSignal(process, GetParam());
  EXPECT_EQ(process.wait(), 0);
  EXPECT_FALSE(std::filesystem::exists(control()));
}

TEST_P(EndingSignal, DriverIsConnected_EndsTheConnection) {
  DriverEnd driver;
  AgentProcess process(script(kPlain));
  driver.acceptSession();
  waitReady(process);
  sendSignal(process, GetParam());
  EXPECT_EQ(process.wait(), 0);
  EXPECT_TRUE(driver.waitForDrop());
}

TEST_P(EndingSignal, CardIsSlow_EndsItsCommand) {
  DriverEnd driver;
  AgentProcess process(script(std::string(kSlow) + "on * remove after 900s\n"));
  driver.acceptSession();
  EXPECT_TRUE(driver.sendTransmit(kSelect));
  EXPECT_TRUE(process.readLineWith("Connected to the driver"));
  sendSignal(process, GetParam());
  EXPECT_EQ(process.wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(Signals, EndingSignal, testing::Values(SIGINT, SIGTERM),
                         [](const auto& each) {
                           return each.param == SIGINT ? "Interrupt" : "Terminate";
                         });

#if !defined(__SANITIZE_ADDRESS__)  // the sanitizers look into memory by a pipe that they open
// Lets the program get no further file descriptors, nor poll more than `left`.
void refuseDescriptors(const AgentProcess& process, rlim_t left) {
  const rlimit few = {left, left};
  ASSERT_EQ(prlimit(static_cast<pid_t>(process.id()), RLIMIT_NOFILE, &few, nullptr), 0);
}

constexpr rlim_t kStandardStreams = 3;  // enough for polling

TEST_F(Program, NoDescriptorsToConnectAgain_EndsWithOneAndAMessage) {
  DriverEnd driver;
  AgentProcess process(script(kPlain));
  driver.acceptSession();
  waitReady(process);
  refuseDescriptors(process, kStandardStreams);
  driver.disconnect();
  const Ended ended = awaitEnd(process);
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_THAT(ended.text, HasSubstr(" error: Ending: inotify_init1: Too many open files\n"));
  EXPECT_FALSE(std::filesystem::exists(control()));
}

TEST_F(Program, NoDescriptorsForAControlClient_EndsWithOneAndAMessage) {
  DriverEnd driver;
  AgentProcess process(script(kPlain));
  driver.acceptSession();
  waitReady(process);
  refuseDescriptors(process, kStandardStreams);
  EXPECT_EQ(ctl({"status"}).exitCode, 1);
  const Ended ended = awaitEnd(process);
  EXPECT_EQ(ended.exitCode, 1);
  EXPECT_THAT(ended.text, HasSubstr(" error: Ending: the control socket: Too many open files\n"));
  EXPECT_TRUE(driver.waitForDrop());
}

TEST_F(Program, NoDescriptorsInsideACommand_DropsTheConnectionUnanswered) {
  DriverEnd driver;
  AgentProcess process(script(kPlain));
  driver.acceptSession();
  waitReady(process);
  EXPECT_TRUE(driver.sendNumber(static_cast<std::uint32_t>(AgentCommand::kQueryTransmit)));
  EXPECT_TRUE(driver.sendNumber(4));
  EXPECT_TRUE(driver.sendBytes({0x00, 0xA4}));
  EXPECT_TRUE(driver.flush());
  refuseDescriptors(process, 0);
  // The agent has to wait once more, and cannot. Its end may come before this byte.
  driver.sendBytes({0x04});
  EXPECT_EQ(driver.takeRest(), Bytes());
  EXPECT_EQ(awaitEnd(process).exitCode, 1);
}

TEST_F(Program, NoDescriptorsWhileTheCardWorks_LeavesAWholeAnswerOrNone) {
  DriverEnd driver;
  AgentProcess process(script("atr 3B00\ncommand 01 -> 9000 after 1s\n"));
  driver.acceptSession();
  waitReady(process);
  EXPECT_TRUE(driver.sendTransmit({0x01}));
  EXPECT_TRUE(driver.flush());
  refuseDescriptors(process, 0);
  // None if the agent could no longer wait for the event pipe before the card was done.
  const std::optional<Bytes> answer = driver.takeAnswer();
  EXPECT_TRUE(!answer || *answer == kOk);
  EXPECT_TRUE(driver.waitForDrop());
  EXPECT_EQ(awaitEnd(process).exitCode, 1);
}
#endif

}  // namespace
}  // namespace zelta::test
