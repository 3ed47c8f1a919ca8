// How the serialising pipes differ from the system's on Linux. pipe_test.cpp tests the common
// behaviour.
#include <gtest/gtest.h>

#include "platform/process/error.h"
#include "tests/doubles/pipes/serialising_pipes.h"
#include "tests/support/pipes/pipe_call.h"

namespace zelta::test {

namespace {

namespace error = platform::error;
using platform::PipeHandleValue;
using Bytes = std::vector<std::uint8_t>;
using Client = SerialisingPipes::Client;

const PipeOutcome kAborted{false, error::kOperationAborted};

class SerialisingPipesTest : public testing::Test {
 protected:
  Client connected() {
    const Client client = pipes_.connectClient("first");
    EXPECT_EQ(outcomeOf([this] { return pipes_.connect(pipe_); }),
              pipeError(error::kPipeConnected));
    return client;
  }

  SerialisingPipes pipes_;
  PipeHandleValue pipe_ = pipes_.create("first", {});
  const std::function<bool()> readByte_ = [this] {
    char byte = 0;
    return pipes_.read(pipe_, &byte, 1);
  };
};

TEST_F(SerialisingPipesTest, EveryCallButCancel_WaitsWhileAReadIsBlocked) {
  connected();
  PipeCallThread reading(readByte_);
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_));
  PipeCallThread flushing([this] { return pipes_.flush(pipe_); });
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_, 1));
  PipeCallThread writing([this] { return pipes_.write(pipe_, nullptr, 0); });
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_, 2));
  PipeCallThread disconnecting([this] { return pipes_.disconnect(pipe_); });
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_, 3));
  PipeCallThread closing([this] { return pipes_.close(pipe_); });
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_, 4));
  for (PipeCallThread* call : {&reading, &flushing, &writing, &disconnecting, &closing}) {
    EXPECT_FALSE(call->ended());
  }
  EXPECT_TRUE(pipes_.cancel(pipe_));
  EXPECT_EQ(reading.outcome(), kAborted);
  for (PipeCallThread* call : {&flushing, &writing, &disconnecting, &closing}) {
    EXPECT_EQ(call->outcome(), kPipeOk);
  }
}

TEST_F(SerialisingPipesTest, Cancel_DoesNotReachACallThatWaitsForItsTurn) {
  const Client client = connected();
  PipeCallThread first(readByte_);
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_));
  PipeCallThread second(readByte_);
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_, 1));
  EXPECT_TRUE(pipes_.cancel(pipe_));
  EXPECT_EQ(first.outcome(), kAborted);
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_));
  EXPECT_FALSE(second.ended());
  EXPECT_TRUE(pipes_.clientWrite(client, {1}));
  EXPECT_EQ(second.outcome(), kPipeOk);
}

}  // namespace

}  // namespace zelta::test
