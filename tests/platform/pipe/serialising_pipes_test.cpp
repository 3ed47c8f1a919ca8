// What the serialising pipes add to what every implementation does: the order in which a
// synchronous handle serves.
#include "tests/doubles/pipes/serialising_pipes.h"

#include <gtest/gtest.h>

#include "platform/process/error.h"
#include "tests/support/pipe_call.h"

namespace zelta::test {

namespace {

namespace error = platform::error;
using platform::PipeHandleValue;
using Bytes = std::vector<std::uint8_t>;

constexpr char kName[] = "\\\\.\\pipe\\A";

class SerialisingPipesTest : public testing::Test {
 protected:
  SerialisingPipes::Client connected() {
    const SerialisingPipes::Client client = pipes_.connectClient(kName);
    EXPECT_NE(client, SerialisingPipes::kNoClient);
    EXPECT_EQ(outcomeOf([this] { return pipes_.connect(pipe_); }),
              pipeError(error::kPipeConnected));
    return client;
  }
  bool readByte() {
    char byte = 0;
    return pipes_.read(pipe_, &byte, 1);
  }

  SerialisingPipes pipes_;
  PipeHandleValue pipe_ = pipes_.create(kName, {});
};

TEST_F(SerialisingPipesTest, DisconnectFlushWriteAndCloseWaitBehindABlockedRead) {
  connected();
  PipeCallThread reading([this] { return readByte(); });
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
  EXPECT_TRUE(pipes_.cancel(pipe_)) << "cancel does not wait";
  EXPECT_EQ(reading.outcome(), pipeError(error::kOperationAborted));
  for (PipeCallThread* call : {&flushing, &writing, &disconnecting, &closing}) {
    EXPECT_EQ(call->outcome(), kPipeOk);
  }
}

TEST_F(SerialisingPipesTest, DisconnectWaitsBehindABlockedConnect) {
  PipeCallThread connecting([this] { return pipes_.connect(pipe_); });
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_));
  PipeCallThread disconnecting([this] { return pipes_.disconnect(pipe_); });
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_, 1));
  EXPECT_FALSE(disconnecting.ended());
  EXPECT_TRUE(pipes_.cancel(pipe_));
  EXPECT_EQ(connecting.outcome(), pipeError(error::kOperationAborted));
  EXPECT_EQ(disconnecting.outcome(), kPipeOk);
}

TEST_F(SerialisingPipesTest, CancelDoesNotReachWhoWaitsForItsTurn) {
  const SerialisingPipes::Client client = connected();
  PipeCallThread first([this] { return readByte(); });
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_));
  PipeCallThread second([this] { return readByte(); });
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_, 1));
  EXPECT_TRUE(pipes_.cancel(pipe_));
  EXPECT_EQ(first.outcome(), pipeError(error::kOperationAborted));
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_));
  EXPECT_FALSE(second.ended());
  EXPECT_TRUE(pipes_.clientWrite(client, {1}));
  EXPECT_EQ(second.outcome(), kPipeOk);
}

TEST_F(SerialisingPipesTest, WriteWithoutBufferReturnsWhenItsLastByteIsRead) {
  const SerialisingPipes::Client client = connected();
  PipeCallThread call([this] { return pipes_.write(pipe_, "ab", 2); });
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_));
  EXPECT_EQ(pipes_.clientRead(client, 1), Bytes{'a'});
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_));
  EXPECT_FALSE(call.ended());
  EXPECT_EQ(pipes_.clientRead(client, 1), Bytes{'b'});
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_F(SerialisingPipesTest, CancelledWriteTakesBackWhatWasNotRead) {
  const SerialisingPipes::Client client = connected();
  PipeCallThread call([this] { return pipes_.write(pipe_, "ab", 2); });
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_));
  EXPECT_TRUE(pipes_.cancel(pipe_));
  EXPECT_EQ(call.outcome(), pipeError(error::kOperationAborted));
  PipeCallThread next([this] { return pipes_.write(pipe_, "c", 1); });
  EXPECT_EQ(pipes_.clientRead(client, 1), Bytes{'c'});
  EXPECT_EQ(next.outcome(), kPipeOk);
}

TEST_F(SerialisingPipesTest, WriteIntoABufferReturnsAtOnceAndFlushWaits) {
  ASSERT_TRUE(pipes_.close(pipe_));
  platform::PipeArguments arguments;
  arguments.outBufferSize = 16;
  pipe_ = pipes_.create(kName, arguments);
  const SerialisingPipes::Client client = connected();
  EXPECT_TRUE(pipes_.write(pipe_, "ab", 2));
  PipeCallThread call([this] { return pipes_.flush(pipe_); });
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_));
  EXPECT_EQ(pipes_.clientRead(client, 2).size(), 2U);
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_F(SerialisingPipesTest, PipesCanBeGivenABufferThatTheirCreatorDoesNotAskFor) {
  const std::string name = "\\\\.\\pipe\\B";
  pipes_.bufferWrites(2);
  const PipeHandleValue pipe = pipes_.create(name, {});
  const SerialisingPipes::Client client = pipes_.connectClient(name);
  EXPECT_TRUE(pipes_.write(pipe, "ab", 2));
  PipeCallThread flushing([&] { return pipes_.flush(pipe); });
  ASSERT_TRUE(pipes_.waitUntilQueued(name));
  EXPECT_EQ(pipes_.clientRead(client, 2), (Bytes{'a', 'b'}));
  EXPECT_EQ(flushing.outcome(), kPipeOk);
}

TEST_F(SerialisingPipesTest, APipeCanBeWaitedForBeforeItIsCreated) {
  const std::string name = "\\\\.\\pipe\\B";
  PipeCallThread connecting([&] { return pipes_.connect(pipes_.create(name, {})); });
  ASSERT_TRUE(pipes_.waitUntilQueued(name));
  EXPECT_NE(pipes_.connectClient(name), SerialisingPipes::kNoClient);
  EXPECT_EQ(connecting.outcome(), kPipeOk);
}

TEST_F(SerialisingPipesTest, DisconnectedPipeTurnsClientsAwayUntilItIsConnected) {
  EXPECT_TRUE(pipes_.disconnect(pipe_));
  EXPECT_EQ(pipes_.connectClient(kName), SerialisingPipes::kNoClient);
  EXPECT_EQ(platform::lastError(), error::kPipeBusy);
  PipeCallThread call([this] { return pipes_.connect(pipe_); });
  ASSERT_TRUE(pipes_.waitUntilQueued(pipe_));
  EXPECT_NE(pipes_.connectClient(kName), SerialisingPipes::kNoClient);
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_F(SerialisingPipesTest, ClientThatLeftMustBeDisconnectedBeforeTheNext) {
  const SerialisingPipes::Client client = connected();
  pipes_.closeClient(client);
  EXPECT_EQ(outcomeOf([this] { return pipes_.connect(pipe_); }), pipeError(error::kNoData));
  EXPECT_EQ(outcomeOf([this] { return pipes_.write(pipe_, "a", 1); }), pipeError(error::kNoData));
  EXPECT_EQ(outcomeOf([this] { return pipes_.flush(pipe_); }), pipeError(error::kBrokenPipe));
  EXPECT_EQ(pipes_.connectClient(kName), SerialisingPipes::kNoClient);
  EXPECT_EQ(platform::lastError(), error::kPipeBusy);
}

TEST_F(SerialisingPipesTest, ClientOfANameThatDoesNotExistIsRefused) {
  EXPECT_EQ(pipes_.connectClient("other"), SerialisingPipes::kNoClient);
  EXPECT_EQ(platform::lastError(), error::kFileNotFound);
}

TEST_F(SerialisingPipesTest, CallsOfADroppedClientFail) {
  const SerialisingPipes::Client client = connected();
  ASSERT_TRUE(pipes_.disconnect(pipe_));
  EXPECT_TRUE(pipes_.waitForDrop(client));
  EXPECT_FALSE(pipes_.clientWrite(client, {1}));
  EXPECT_TRUE(pipes_.clientRead(client, 1).empty());
}

}  // namespace

}  // namespace zelta::test
