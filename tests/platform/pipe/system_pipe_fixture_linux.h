// The system's pipes below a folder of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/pipe/pipe.h"
#include "platform/pipe/pipe_path.h"
#include "platform/process/error.h"
#include "tests/support/pipe_call.h"
#include "tests/support/pipe_client.h"
#include "tests/support/temp_folder.h"

namespace zelta::test {

namespace error = platform::error;
using Bytes = std::vector<std::uint8_t>;
using platform::PipeHandleValue;

inline constexpr char kPipeName[] = "\\\\.\\pipe\\Prefix\\Service\\pipe0";
inline constexpr char kPipeSddl[] =
    "D:(D;OICI;GA;;;BG)(D;OICI;GA;;;AN)(A;OICI;GA;;;LS)(A;OICI;GA;;;SY)";

inline std::size_t openDescriptors() {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    static_cast<void>(entry);
    ++count;
  }
  return count;
}

class SystemPipeTest : public testing::Test {
 protected:
  ~SystemPipeTest() override {
    if (pipe_ == platform::noPipe()) return;
    pipes_.cancel(pipe_);
    pipes_.close(pipe_);
  }

  PipeHandleValue create(const std::string& name = kPipeName, const char* sddl = kPipeSddl) {
    platform::PipeArguments arguments;
    EXPECT_TRUE(pipes_.convertSecurityDescriptor(sddl, &arguments.securityDescriptor));
    return pipes_.create(name, arguments);
  }
  void createPipe() {
    pipe_ = create();
    ASSERT_NE(pipe_, platform::invalidPipe()) << platform::lastError();
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
    EXPECT_EQ(connectPipe(), pipeError(error::kPipeConnected));
    return client;
  }

  PipeOutcome connectPipe() {
    return outcomeOf([this] { return pipes_.connect(pipe_); });
  }
  PipeOutcome disconnect() {
    return outcomeOf([this] { return pipes_.disconnect(pipe_); });
  }
  PipeOutcome cancel() {
    return outcomeOf([this] { return pipes_.cancel(pipe_); });
  }
  PipeOutcome flush() {
    return outcomeOf([this] { return pipes_.flush(pipe_); });
  }
  PipeOutcome read(Bytes* bytes) {
    return outcomeOf([&] {
      return pipes_.read(pipe_, bytes->data(), static_cast<std::uint32_t>(bytes->size()));
    });
  }
  PipeOutcome write(const Bytes& bytes) {
    return outcomeOf([&] {
      return pipes_.write(pipe_, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    });
  }
  bool readByte() {
    std::uint8_t byte = 0;
    return pipes_.read(pipe_, &byte, 1);
  }

  std::string path(const std::string& name = kPipeName) { return platform::pipeSocketPath(name); }

  platform::PipeApi& pipes_ = platform::systemPipes();
  TempFolder folder_;
  ScopedVariable root_{"ZELTA_PIPE_ROOT", folder_.file("root/pipe")};
  PipeHandleValue pipe_ = platform::noPipe();
};

}  // namespace zelta::test
