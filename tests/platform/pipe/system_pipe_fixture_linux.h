// The system's pipes below the test's own folder.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "platform/pipe/pipe.h"
#include "platform/pipe/pipe_path.h"
#include "platform/process/error.h"
#include "tests/platform/pipe/pipe_calls.h"
#include "tests/support/pipes/pipe_client.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

namespace error = platform::error;
using platform::PipeHandleValue;

inline constexpr char kPipeName[] = "\\\\.\\pipe\\Prefix\\Service\\pipe0";
inline constexpr char kPipeSddl[] =
    "D:(D;OICI;GA;;;BG)(D;OICI;GA;;;AN)(A;OICI;GA;;;LS)(A;OICI;GA;;;SY)";
inline constexpr std::uint32_t kLargerThanSocket = 4 * 1024 * 1024;  // bytes

class SystemPipeTest : public testing::Test, protected PipeCalls {
 protected:
  SystemPipeTest() : PipeCalls(platform::systemPipes()) {}

  PipeHandleValue create(const std::string& name = kPipeName, const char* sddl = kPipeSddl) {
    platform::PipeArguments arguments;
    EXPECT_TRUE(pipes_.convertSecurityDescriptor(sddl, &arguments.securityDescriptor));
    return pipes_.create(name, arguments);
  }
  void createPipe() {
    pipe_ = create();
    ASSERT_NE(pipe_, platform::invalidPipe()) << platform::lastError();
  }
  void closePipe() {
    EXPECT_TRUE(pipes_.close(pipe_));
    pipe_ = platform::noPipe();
  }
  // Fails the test unless creation fails with the error.
  void expectRefused(std::uint32_t error, const std::string& name = kPipeName) {
    EXPECT_EQ(create(name), platform::invalidPipe());
    EXPECT_EQ(platform::lastError(), error);
  }

  // A client of the pipe that `connect` has let in.
  PipeClient connected() {
    PipeClient client;
    EXPECT_TRUE(client.connect(kPipeName)) << client.error();
    EXPECT_EQ(outcomeOf(connect_), pipeError(error::kPipeConnected));
    return client;
  }
  // Whether the pipe takes a new client while `connecting` waits for it, and reads from it.
  void expectServed(PipeCallThread& connecting) {
    PipeClient client;
    ASSERT_TRUE(client.connectWhenListening(kPipeName));
    const std::uint32_t outcome = connecting.outcome().error;
    EXPECT_TRUE(outcome == error::kSuccess || outcome == error::kPipeConnected) << outcome;
    expectRead(client);
  }
  void expectRead(PipeClient& client) {
    ASSERT_TRUE(client.write({0x5A}));
    Bytes byte(1);
    EXPECT_EQ(read(&byte), kPipeOk);
    EXPECT_EQ(byte, Bytes{0x5A});
  }

  std::string path(const std::string& name = kPipeName) { return platform::pipeSocketPath(name); }

  TempFolder folder_;
  ScopedVariable root_{"ZELTA_PIPE_ROOT", folder_.file("root/pipe")};

  // A call that can block.
  const std::function<bool()> writeLarge_ = [this, large = Bytes(kLargerThanSocket)] {
    return pipes_.write(pipe_, large.data(), kLargerThanSocket);
  };
};

}  // namespace zelta::test
