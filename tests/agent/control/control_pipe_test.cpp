#include <windows.h>
// windows.h comes first
#include <aclapi.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sddl.h>

#include <array>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>

#include "agent/control/control_socket.h"
#include "agent/platform/pipe_connection_win32.h"
#include "contract/control.h"
#include "tests/agent/running_agent.h"
#include "tests/support/system.h"
#include "tests/support/temp_folder.h"

namespace zelta::agent {
namespace {

std::string echo(const std::string& line) { return "<" + line + ">"; }

// The message that the call throws.
template <typename Call>
std::string problemOf(Call call) {
  try {
    call();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "nothing thrown";
}

class ControlPipe : public testing::Test {
 protected:
  std::unique_ptr<ControlServer> serve(ControlServer::Handler handler = echo) {
    return openControlServer(name_, std::move(handler), test::failTest);
  }
  // A raw client.
  platform::ScopedKernelHandle connect() const {
    HANDLE pipe = CreateFileA(name_.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                              OPEN_EXISTING, 0, nullptr);
    EXPECT_NE(pipe, INVALID_HANDLE_VALUE) << GetLastError();
    return platform::ScopedKernelHandle(pipe);
  }
  static void write(const platform::ScopedKernelHandle& pipe, const std::string& text) {
    DWORD count = 0;
    EXPECT_TRUE(
        WriteFile(pipe.get(), text.data(), static_cast<DWORD>(text.size()), &count, nullptr));
  }
  static std::string readAll(const platform::ScopedKernelHandle& pipe) {
    std::string text;
    char c = 0;
    DWORD count = 0;
    while (ReadFile(pipe.get(), &c, 1, &count, nullptr) && count == 1) text += c;
    return text;
  }

  const test::TempFolder folder_;
  const std::string name_ = test::controlPathFor(folder_.path());
};

TEST_F(ControlPipe, Clients_AreAnsweredOneAfterTheOther) {
  const auto server = serve();
  EXPECT_EQ(askAgent({name_}, "one\n"), "<one>");
  EXPECT_EQ(askAgent({name_}, "two\n"), "<two>");
}

TEST_F(ControlPipe, ManyClientsAtOnce_AreAllAnswered) {
  const auto server = serve();
  std::array<std::future<std::string>, 20> answers;
  for (auto& answer : answers) {
    answer = std::async(std::launch::async, [this] { return askAgent({name_}, "x\n"); });
  }
  for (auto& answer : answers) EXPECT_EQ(answer.get(), "<x>");
}

TEST_F(ControlPipe, LongestAnswer_ArrivesWhole) {
  const std::string longest(kLongestControlAnswer, 'x');
  const auto server = serve([&](const std::string&) { return std::string(longest); });
  EXPECT_EQ(askAgent({name_}, "x\n"), longest);
}

TEST_F(ControlPipe, Answer_WaitsForAClientThatReadsLate) {
  auto server = serve();
  const platform::ScopedKernelHandle client = connect();
  write(client, "late\n");
  EXPECT_EQ(askAgent({name_}, "x\n"), "<x>");  // answered after the other client
  server.reset();
  EXPECT_EQ(readAll(client), "<late>");
}

TEST_F(ControlPipe, Pipe_IsForItsOwnerAndAdministratorsOnly) {
  const auto server = serve();
  const platform::ScopedKernelHandle client = connect();
  PSECURITY_DESCRIPTOR access = nullptr;
  ASSERT_EQ(GetSecurityInfo(client.get(), SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                            nullptr, nullptr, nullptr, &access),
            static_cast<DWORD>(ERROR_SUCCESS));
  char* text = nullptr;
  EXPECT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorA(
      access, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr));
  // Windows translates "everything" (GA) to a pipe's rights (FA).
  EXPECT_STREQ(text,
               test::underWine() ? "D:P(A;;GA;;;OW)(A;;GA;;;BA)" : "D:P(A;;FA;;;OW)(A;;FA;;;BA)");
  LocalFree(text);
  LocalFree(access);
}

TEST_F(ControlPipe, LivePipe_IsLeftToItsAgent) {
  const auto server = serve();
  EXPECT_EQ(problemOf([&] { serve(); }),
            "another agent is running: it has the control path " + name_);
  EXPECT_EQ(askAgent({name_}, "x\n"), "<x>");
}

TEST_F(ControlPipe, PipeOfAServerThatHasEnded_IsFree) {
  serve().reset();
  const auto server = serve();
  EXPECT_EQ(askAgent({name_}, "x\n"), "<x>");
}

TEST_F(ControlPipe, NameThatIsNoPipes_IsRefused) {
  for (const std::string name : {"agent.ctl", "\\\\.\\pipe\\", "\\\\other\\pipe\\agent"}) {
    const std::string problem =
        "the control path '" + name + "' cannot be used: not \\\\.\\pipe\\NAME";
    EXPECT_EQ(problemOf([&] { openControlServer(name, echo, test::failTest); }), problem);
    EXPECT_EQ(problemOf([&] { askAgent({name}, "x\n"); }), problem);
  }
}

TEST_F(ControlPipe, ClientThatAsksForTooMuch_IsDropped) {
  const auto server = serve();
  const platform::ScopedKernelHandle client = connect();
  write(client, std::string(kLongestControlLine + 1, 'x'));
  EXPECT_EQ(readAll(client), "");
}

TEST_F(ControlPipe, ClientThatSaysNothing_IsDroppedAndTheNextIsAnswered) {
  const auto server = serve();
  const platform::ScopedKernelHandle client = connect();
  EXPECT_EQ(askAgent({name_}, "x\n"), "<x>");
  EXPECT_EQ(readAll(client), "");
}

TEST_F(ControlPipe, ClientsThatGoWithoutWaiting_HarmNothing) {
  const auto server = serve();
  for (int i = 0; i < 20; ++i) {
    platform::ScopedKernelHandle client;
    while (!client) {  // two ends are there at a time
      HANDLE pipe = CreateFileA(name_.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                OPEN_EXISTING, 0, nullptr);
      if (pipe != INVALID_HANDLE_VALUE) client.reset(pipe);
    }
    write(client, "x\n");
  }
  EXPECT_EQ(askAgent({name_}, "x\n"), "<x>");
}

TEST_F(ControlPipe, ClientThatSaysNothing_DoesNotHoldUpTheEnd) {
  auto server = serve();
  const platform::ScopedKernelHandle client = connect();
  server.reset();
  EXPECT_EQ(readAll(client), "");
}

TEST_F(ControlPipe, RemovedPath_TakesNoFurtherClient) {
  auto server = serve();
  server->removePath();
  server.reset();
  EXPECT_EQ(problemOf([&] { askAgent({name_}, "x\n"); }), "no agent is running at " + name_);
}

TEST_F(ControlPipe, FirstPathWithAnAgent_IsAsked) {
  const auto server = serve();
  EXPECT_EQ(askAgent({name_ + "-none", name_}, "x\n"), "<x>");
}

TEST_F(ControlPipe, TraceRequest_IsLeftToTheHandler) {
  const auto server = serve();
  EXPECT_EQ(askAgent({name_}, "trace\n"), "<trace>");
}

}  // namespace
}  // namespace zelta::agent
