// The calls of a test on one pipe, each with its outcome; closes the pipe at the end.
#pragma once

#include <cstdint>
#include <functional>

#include "contract/bytes.h"
#include "platform/pipe/pipe.h"
#include "tests/support/pipes/pipe_call.h"

namespace zelta::test {

class PipeCalls {
 protected:
  explicit PipeCalls(platform::PipeApi& pipes) : pipes_(pipes) {}
  ~PipeCalls() {
    if (pipe_ == platform::noPipe()) return;
    pipes_.cancel(pipe_);
    pipes_.close(pipe_);
  }
  PipeCalls(const PipeCalls&) = delete;
  PipeCalls& operator=(const PipeCalls&) = delete;

  PipeOutcome disconnect() {
    return outcomeOf([this] { return pipes_.disconnect(pipe_); });
  }
  PipeOutcome cancel() {
    return outcomeOf([this] { return pipes_.cancel(pipe_); });
  }
  PipeOutcome flush() { return outcomeOf(flush_); }
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

  platform::PipeApi& pipes_;
  platform::PipeHandleValue pipe_ = platform::noPipe();

  // Calls that can block, for separate threads.
  const std::function<bool()> connect_ = [this] { return pipes_.connect(pipe_); };
  const std::function<bool()> readByte_ = [this] {
    std::uint8_t byte = 0;
    return pipes_.read(pipe_, &byte, 1);
  };
  const std::function<bool()> flush_ = [this] { return pipes_.flush(pipe_); };
};

}  // namespace zelta::test
