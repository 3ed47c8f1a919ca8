// The doubles of the pipes do what the tests that use them rely on. What the serialising pipes have
// in common with the system's is pipe_test.cpp's concern.
#include <gtest/gtest.h>

#include <string>

#include "platform/process/error.h"
#include "tests/doubles/pipes/scripted_pipes.h"
#include "tests/doubles/pipes/serialising_pipes.h"
#include "tests/support/pipe_call.h"

namespace zelta::test {

namespace {

namespace error = platform::error;
using platform::PipeHandleValue;
using Bytes = std::vector<std::uint8_t>;
using Client = SerialisingPipes::Client;

const PipeOutcome kAborted{false, error::kOperationAborted};

template <typename Pipes>
class PipeDoubleTest : public testing::Test {
 protected:
  PipeOutcome connect(PipeHandleValue pipe) {
    return outcomeOf([&] { return pipes_.connect(pipe); });
  }

  Pipes pipes_;
  PipeHandleValue pipe_ = pipes_.create("first", {});
  const std::function<bool()> connect_ = [this] { return pipes_.connect(pipe_); };
  const std::function<bool()> readByte_ = [this] {
    char byte = 0;
    return pipes_.read(pipe_, &byte, 1);
  };
};

using ScriptedPipesTest = PipeDoubleTest<ScriptedPipes>;

TEST_F(ScriptedPipesTest, EveryCall_IsRecordedWithItsArgumentsAndItsResult) {
  platform::PipeArguments arguments;
  EXPECT_TRUE(pipes_.convertSecurityDescriptor("D:", &arguments.securityDescriptor));
  arguments.openMode = 1;
  const PipeHandleValue pipe = pipes_.create("second", arguments);
  EXPECT_TRUE(pipes_.write(pipe, "ab", 2));
  EXPECT_FALSE(pipes_.cancel(pipe));
  EXPECT_TRUE(pipes_.close(pipe));
  EXPECT_EQ(connect(pipe), pipeError(error::kInvalidHandle));

  const std::vector<PipeCall> calls = pipes_.calls();
  ASSERT_EQ(calls.size(), 7U);
  EXPECT_EQ(calls[1].kind, PipeCallKind::kConvert);
  EXPECT_EQ(calls[1].text, "D:");
  EXPECT_EQ(calls[2].kind, PipeCallKind::kCreate);
  EXPECT_EQ(calls[2].pipe, pipe);
  EXPECT_EQ(calls[2].arguments.openMode, 1U);
  EXPECT_EQ(calls[2].arguments.securityDescriptor, pipes_.descriptor());
  EXPECT_EQ(calls[3].text, "second");
  EXPECT_EQ(calls[3].data, (Bytes{'a', 'b'}));
  EXPECT_EQ(calls[4].error, error::kNotFound);
  EXPECT_EQ(calls[5].error, error::kSuccess);
  EXPECT_EQ(calls[6].pipe, pipe);
}

TEST_F(ScriptedPipesTest, Call_FailsAsToldByNumberAndName) {
  pipes_.fail(PipeCallKind::kCreate, error::kAccessDenied, 2);
  EXPECT_EQ(pipes_.create("second", {}), platform::invalidPipe());
  EXPECT_EQ(platform::lastError(), error::kAccessDenied);
  EXPECT_EQ(pipes_.handle("second"), platform::noPipe());
  const PipeHandleValue second = pipes_.create("second", {});
  EXPECT_EQ(pipes_.handle("second"), second);
  pipes_.fail(PipeCallKind::kConnect, error::kBadPipe, 2, 2);
  pipes_.fail(PipeCallKind::kFlush, error::kGenFailure, 1, ScriptedPipes::kForever, "second");
  EXPECT_EQ(connect(pipe_), kPipeOk);
  EXPECT_EQ(connect(pipe_), pipeError(error::kBadPipe));
  EXPECT_EQ(connect(second), pipeError(error::kBadPipe));
  EXPECT_EQ(connect(pipe_), kPipeOk);
  EXPECT_TRUE(pipes_.flush(pipe_));
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(pipes_.flush(second));
}

TEST_F(ScriptedPipesTest, Read_TakesWhatIsFedAndWaitsForTheRest) {
  pipes_.feed("first", {1, 2, 3});
  Bytes bytes(2);
  EXPECT_TRUE(pipes_.read(pipe_, bytes.data(), 2));
  EXPECT_EQ(bytes, (Bytes{1, 2}));
  PipeCallThread call([&] { return pipes_.read(pipe_, bytes.data(), 2); });
  ASSERT_TRUE(pipes_.waitUntilBlocked("first"));
  EXPECT_EQ(pipes_.calls(PipeCallKind::kRead).back().error, PipeCall::kRunning);
  pipes_.feed("first", {4});
  EXPECT_EQ(call.outcome(), kPipeOk);
  EXPECT_EQ(bytes, (Bytes{3, 4}));
}

TEST_F(ScriptedPipesTest, BlockedRead_IsReleasedByCancelDisconnectAndClose) {
  const auto expectReleased = [this](const auto& release, std::uint32_t error) {
    PipeCallThread call(readByte_);
    ASSERT_TRUE(pipes_.waitUntilBlocked("first"));
    EXPECT_TRUE(release());
    EXPECT_EQ(call.outcome(), pipeError(error));
  };
  expectReleased([this] { return pipes_.cancel(pipe_); }, error::kOperationAborted);
  expectReleased([this] { return pipes_.disconnect(pipe_); }, error::kBrokenPipe);
  expectReleased([this] { return pipes_.close(pipe_); }, error::kBrokenPipe);
}

TEST_F(ScriptedPipesTest, HeldConnect_WaitsUntilItIsLet) {
  pipes_.holdConnect("first");
  PipeCallThread call(connect_);
  ASSERT_TRUE(pipes_.waitForCalls(PipeCallKind::kConnect, 1));
  ASSERT_TRUE(pipes_.waitUntilBlocked("first"));
  pipes_.letConnect("first");
  EXPECT_EQ(call.outcome(), kPipeOk);
  PipeCallThread next(connect_);
  ASSERT_TRUE(pipes_.waitUntilBlocked("first")) << "one permit lets one connect succeed";
  EXPECT_TRUE(pipes_.cancel(pipe_));
  EXPECT_EQ(next.outcome(), kAborted);
}

class SerialisingPipesTest : public PipeDoubleTest<SerialisingPipes> {
 protected:
  Client connected() {
    const Client client = pipes_.connectClient("first");
    EXPECT_EQ(outcomeOf(connect_), pipeError(error::kPipeConnected));
    return client;
  }
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

TEST_F(SerialisingPipesTest, Write_ReturnsWhenItsLastByteIsReadAndACancelTakesTheRestBack) {
  const Client client = connected();
  PipeCallThread call([this] { return pipes_.write(pipe_, "ab", 2); });
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_));
  EXPECT_EQ(pipes_.clientRead(client, 1), Bytes{'a'});
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_));
  EXPECT_FALSE(call.ended());
  EXPECT_TRUE(pipes_.cancel(pipe_));
  EXPECT_EQ(call.outcome(), kAborted);
  PipeCallThread next([this] { return pipes_.write(pipe_, "c", 1); });
  EXPECT_EQ(pipes_.clientRead(client, 1), Bytes{'c'});
  EXPECT_EQ(next.outcome(), kPipeOk);
}

TEST_F(SerialisingPipesTest, PipeWithABuffer_TakesAWriteAtOnceAndFlushWaits) {
  pipes_.bufferWrites(2);
  PipeHandleValue pipe = platform::noPipe();
  PipeCallThread connecting([&] { return pipes_.connect(pipe = pipes_.create("second", {})); });
  ASSERT_TRUE(pipes_.waitUntilQueued("second")) << "can be waited for before it is created";
  const Client client = pipes_.connectClient("second");
  EXPECT_EQ(connecting.outcome(), kPipeOk);
  EXPECT_TRUE(pipes_.write(pipe, "ab", 2));
  PipeCallThread flushing([&] { return pipes_.flush(pipe); });
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe));
  EXPECT_EQ(pipes_.clientRead(client, 2), (Bytes{'a', 'b'}));
  EXPECT_EQ(flushing.outcome(), kPipeOk);
}

TEST_F(SerialisingPipesTest, ClientThatLeft_MustBeDisconnectedBeforeTheNextIsLetIn) {
  const Client client = connected();
  pipes_.closeClient(client);
  EXPECT_EQ(outcomeOf(connect_), pipeError(error::kNoData));
  EXPECT_EQ(outcomeOf([this] { return pipes_.flush(pipe_); }), pipeError(error::kBrokenPipe));
  EXPECT_TRUE(pipes_.disconnect(pipe_));
  EXPECT_EQ(pipes_.connectClient("first"), SerialisingPipes::kNoClient);
  EXPECT_EQ(platform::lastError(), error::kPipeBusy) << "until it is being connected";
  EXPECT_EQ(pipes_.connectClient("other"), SerialisingPipes::kNoClient);
  EXPECT_EQ(platform::lastError(), error::kFileNotFound);
}

}  // namespace

}  // namespace zelta::test
