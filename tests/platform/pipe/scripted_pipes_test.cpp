#include "tests/doubles/pipes/scripted_pipes.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/process/error.h"
#include "tests/support/pipe_call.h"

namespace zelta::test {

namespace {

namespace error = platform::error;
using platform::PipeHandleValue;
using Bytes = std::vector<std::uint8_t>;

constexpr char kFirst[] = "first";
constexpr char kSecond[] = "second";

class ScriptedPipesTest : public testing::Test {
 protected:
  PipeOutcome connect(PipeHandleValue pipe) {
    return outcomeOf([&] { return pipes_.connect(pipe); });
  }

  ScriptedPipes pipes_;
  PipeHandleValue first_ = pipes_.create(kFirst, {});
};

TEST_F(ScriptedPipesTest, RecordsEveryCallWithItsArgumentsInOrder) {
  ScriptedPipes pipes;
  platform::PipeArguments arguments;
  EXPECT_TRUE(pipes.convertSecurityDescriptor("D:", &arguments.securityDescriptor));
  arguments.openMode = 1;
  arguments.pipeMode = 2;
  arguments.maxInstances = 3;
  arguments.outBufferSize = 4;
  arguments.inBufferSize = 5;
  arguments.defaultTimeout = 6;
  const PipeHandleValue pipe = pipes.create(kFirst, arguments);
  EXPECT_TRUE(pipes.connect(pipe));
  EXPECT_TRUE(pipes.write(pipe, "ab", 2));
  EXPECT_TRUE(pipes.flush(pipe));
  EXPECT_FALSE(pipes.cancel(pipe));
  EXPECT_TRUE(pipes.disconnect(pipe));
  EXPECT_TRUE(pipes.close(pipe));

  const std::vector<PipeCall> calls = pipes.calls();
  ASSERT_EQ(calls.size(), 8U);
  EXPECT_EQ(calls[0].kind, PipeCallKind::kConvert);
  EXPECT_EQ(calls[0].text, "D:");
  EXPECT_EQ(calls[1].kind, PipeCallKind::kCreate);
  EXPECT_EQ(calls[1].text, kFirst);
  EXPECT_EQ(calls[1].pipe, pipe);
  EXPECT_EQ(calls[1].arguments.openMode, 1U);
  EXPECT_EQ(calls[1].arguments.pipeMode, 2U);
  EXPECT_EQ(calls[1].arguments.maxInstances, 3U);
  EXPECT_EQ(calls[1].arguments.outBufferSize, 4U);
  EXPECT_EQ(calls[1].arguments.inBufferSize, 5U);
  EXPECT_EQ(calls[1].arguments.defaultTimeout, 6U);
  EXPECT_EQ(calls[1].arguments.securityDescriptor, pipes.descriptor());
  EXPECT_EQ(calls[2].kind, PipeCallKind::kConnect);
  EXPECT_EQ(calls[3].kind, PipeCallKind::kWrite);
  EXPECT_EQ(calls[3].text, kFirst);
  EXPECT_EQ(calls[3].size, 2U);
  EXPECT_EQ(calls[3].data, (Bytes{'a', 'b'}));
  EXPECT_EQ(calls[4].kind, PipeCallKind::kFlush);
  EXPECT_EQ(calls[5].kind, PipeCallKind::kCancel);
  EXPECT_EQ(calls[5].error, error::kNotFound);
  EXPECT_EQ(calls[6].kind, PipeCallKind::kDisconnect);
  EXPECT_EQ(calls[7].kind, PipeCallKind::kClose);
  EXPECT_EQ(calls[7].error, error::kSuccess);
}

TEST_F(ScriptedPipesTest, CallsFailAsToldByNumberAndName) {
  const PipeHandleValue second = pipes_.create(kSecond, {});
  pipes_.fail(PipeCallKind::kConnect, error::kBadPipe, 2, 2);
  pipes_.fail(PipeCallKind::kFlush, error::kGenFailure, 1, ScriptedPipes::kForever, kSecond);
  EXPECT_EQ(connect(first_), kPipeOk);
  EXPECT_EQ(connect(first_), pipeError(error::kBadPipe));
  EXPECT_EQ(connect(second), pipeError(error::kBadPipe));
  EXPECT_EQ(connect(first_), kPipeOk);
  EXPECT_TRUE(pipes_.flush(first_));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(outcomeOf([&] { return pipes_.flush(second); }), pipeError(error::kGenFailure));
  }
}

TEST_F(ScriptedPipesTest, ConversionAndCreationFailAsTold) {
  pipes_.fail(PipeCallKind::kConvert, error::kInvalidParameter);
  pipes_.fail(PipeCallKind::kCreate, error::kAccessDenied, 1, 1, kSecond);
  platform::SecurityDescriptor descriptor = nullptr;
  EXPECT_FALSE(pipes_.convertSecurityDescriptor("D:", &descriptor));
  EXPECT_EQ(descriptor, nullptr);
  EXPECT_EQ(pipes_.create(kSecond, {}), platform::invalidPipe());
  EXPECT_EQ(platform::lastError(), error::kAccessDenied);
  EXPECT_EQ(pipes_.handle(kSecond), platform::noPipe());
  EXPECT_EQ(pipes_.handle(kFirst), first_);
}

TEST_F(ScriptedPipesTest, ReadsTakeWhatIsFedAndWaitForTheRest) {
  pipes_.feed(kFirst, {1, 2, 3});
  Bytes bytes(2);
  EXPECT_TRUE(pipes_.read(first_, bytes.data(), 2));
  EXPECT_EQ(bytes, (Bytes{1, 2}));
  PipeCallThread call([&] { return pipes_.read(first_, bytes.data(), 2); });
  ASSERT_TRUE(pipes_.waitUntilBlocked(kFirst));
  EXPECT_EQ(pipes_.calls(PipeCallKind::kRead).back().error, PipeCall::kRunning);
  pipes_.feed(kFirst, {4});
  EXPECT_EQ(call.outcome(), kPipeOk);
  EXPECT_EQ(bytes, (Bytes{3, 4}));
}

TEST_F(ScriptedPipesTest, BlockedReadIsReleasedByCancelDisconnectAndClose) {
  char byte = 0;
  const auto read = [&] { return pipes_.read(first_, &byte, 1); };
  {
    PipeCallThread call(read);
    ASSERT_TRUE(pipes_.waitUntilBlocked(kFirst));
    EXPECT_TRUE(pipes_.cancel(first_));
    EXPECT_EQ(call.outcome(), pipeError(error::kOperationAborted));
  }
  {
    PipeCallThread call(read);
    ASSERT_TRUE(pipes_.waitUntilBlocked(kFirst));
    EXPECT_TRUE(pipes_.disconnect(first_));
    EXPECT_EQ(call.outcome(), pipeError(error::kBrokenPipe));
  }
  PipeCallThread call(read);
  ASSERT_TRUE(pipes_.waitUntilBlocked(kFirst));
  EXPECT_TRUE(pipes_.close(first_));
  EXPECT_EQ(call.outcome(), pipeError(error::kBrokenPipe));
}

TEST_F(ScriptedPipesTest, HeldConnectWaitsUntilItIsLet) {
  pipes_.holdConnect(kFirst);
  PipeCallThread call([this] { return pipes_.connect(first_); });
  ASSERT_TRUE(pipes_.waitForCalls(PipeCallKind::kConnect, 1));
  ASSERT_TRUE(pipes_.waitUntilBlocked(kFirst));
  pipes_.letConnect(kFirst);
  EXPECT_EQ(call.outcome(), kPipeOk);
  PipeCallThread next([this] { return pipes_.connect(first_); });
  ASSERT_TRUE(pipes_.waitUntilBlocked(kFirst)) << "one permit lets one connect succeed";
  EXPECT_TRUE(pipes_.cancel(first_));
  EXPECT_EQ(next.outcome(), pipeError(error::kOperationAborted));
}

TEST_F(ScriptedPipesTest, UnknownHandlesAreRecordedAndFail) {
  EXPECT_TRUE(pipes_.close(first_));
  for (const PipeHandleValue pipe : {platform::noPipe(), platform::invalidPipe(), first_}) {
    EXPECT_EQ(connect(pipe), pipeError(error::kInvalidHandle));
    EXPECT_EQ(pipes_.calls().back().pipe, pipe);
  }
}

}  // namespace

}  // namespace zelta::test
