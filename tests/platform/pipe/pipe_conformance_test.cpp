// What every implementation of the pipes does alike. Where implementations may differ the world
// says how.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/process/error.h"
#include "tests/platform/pipe/pipe_worlds.h"

namespace zelta::test {

namespace {

using platform::PipeArguments;
using platform::PipeHandleValue;
using testing::AnyOf;
namespace error = platform::error;

constexpr char kName[] = "\\\\.\\pipe\\Zelta\\Tests\\first";
constexpr char kSddl[] = "D:(A;OICI;GA;;;LS)(A;OICI;GA;;;SY)";
// Duplex, first instance only.
constexpr std::uint32_t kOpenMode = 0x00080003;

class PipeConformanceTest : public testing::TestWithParam<PipeWorldMaker> {
 protected:
  PipeConformanceTest() : world_(GetParam().make()), pipes_(world_->pipes()) {}
  ~PipeConformanceTest() override {
    if (pipe_ == platform::noPipe()) return;
    pipes_.cancel(pipe_);
    pipes_.close(pipe_);
  }

  PipeHandleValue create(const std::string& name = kName) {
    PipeArguments arguments;
    arguments.openMode = kOpenMode;
    arguments.maxInstances = 1;
    EXPECT_TRUE(pipes_.convertSecurityDescriptor(kSddl, &arguments.securityDescriptor));
    return pipes_.create(name, arguments);
  }

  void SetUp() override {
    pipe_ = create();
    ASSERT_NE(pipe_, platform::invalidPipe());
    ASSERT_NE(pipe_, platform::noPipe());
  }

  std::unique_ptr<PipeWorld::Client> connected() {
    auto client = world_->connect(kName);
    EXPECT_NE(client, nullptr);
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

  const std::unique_ptr<PipeWorld> world_;
  platform::PipeApi& pipes_;
  PipeHandleValue pipe_ = platform::noPipe();
};

TEST_P(PipeConformanceTest, EmptyDescriptor) {
  platform::SecurityDescriptor descriptor = nullptr;
  const PipeOutcome outcome =
      outcomeOf([&] { return pipes_.convertSecurityDescriptor("", &descriptor); });
  EXPECT_EQ(outcome.ok, !world_->refusesEmptyDescriptor());
  EXPECT_EQ(outcome.error == error::kSuccess, !world_->refusesEmptyDescriptor());
}

TEST_P(PipeConformanceTest, NameInUseIsRefusedAndTheFirstPipeServesOn) {
  auto client = connected();
  EXPECT_EQ(create(), platform::invalidPipe());
  EXPECT_EQ(platform::lastError(), world_->errorOfNameInUse());
  ASSERT_TRUE(client->write({1, 2}));
  Bytes bytes(2);
  EXPECT_EQ(read(&bytes), kPipeOk);
  EXPECT_EQ(bytes, (Bytes{1, 2}));
}

TEST_P(PipeConformanceTest, NameInUseByAnIdlePipeIsRefused) {
  EXPECT_EQ(create(), platform::invalidPipe());
  EXPECT_EQ(platform::lastError(), world_->errorOfNameInUse());
  EXPECT_NE(world_->connect(kName), nullptr);
}

TEST_P(PipeConformanceTest, ClosedNameCanBeCreatedAgain) {
  EXPECT_TRUE(pipes_.close(pipe_));
  EXPECT_EQ(world_->connect(kName), nullptr);
  pipe_ = create();
  ASSERT_NE(pipe_, platform::invalidPipe());
  connected();
}

TEST_P(PipeConformanceTest, HandlesThatStandForNoPipeFailWithInvalidHandle) {
  const PipeHandleValue closed = create("\\\\.\\pipe\\Zelta\\Tests\\second");
  ASSERT_TRUE(pipes_.close(closed));
  char byte = 0;
  for (const PipeHandleValue handle : {platform::noPipe(), platform::invalidPipe(), closed}) {
    const bool isInvalid = handle == platform::invalidPipe();
    const PipeOutcome expected = pipeError(error::kInvalidHandle);
    EXPECT_EQ(outcomeOf([&] { return pipes_.connect(handle); }), expected);
    EXPECT_EQ(outcomeOf([&] { return pipes_.disconnect(handle); }), expected);
    EXPECT_EQ(outcomeOf([&] { return pipes_.cancel(handle); }),
              isInvalid ? world_->cancelOfInvalidPipe() : expected);
    EXPECT_EQ(outcomeOf([&] { return pipes_.read(handle, &byte, 1); }), expected);
    EXPECT_EQ(outcomeOf([&] { return pipes_.write(handle, &byte, 1); }), expected);
    EXPECT_EQ(outcomeOf([&] { return pipes_.flush(handle); }), expected);
    EXPECT_EQ(outcomeOf([&] { return pipes_.close(handle); }),
              isInvalid ? world_->closeOfInvalidPipe() : expected);
  }
}

TEST_P(PipeConformanceTest, ConnectWaitsForAClient) {
  PipeCallThread call([this] { return pipes_.connect(pipe_); });
  world_->waitUntilBlocked(pipe_, call);
  const auto client = world_->connect(kName);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_P(PipeConformanceTest, ConnectReportsAClientThatWasThereFirst) {
  const auto client = world_->connect(kName);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(connectPipe(), pipeError(error::kPipeConnected));
  ASSERT_TRUE(client->write({7}));
  Bytes bytes(1);
  EXPECT_EQ(read(&bytes), kPipeOk);
}

TEST_P(PipeConformanceTest, ConnectReportsTheClientItHasAlready) {
  const auto client = connected();
  EXPECT_EQ(connectPipe(), pipeError(error::kPipeConnected));
}

TEST_P(PipeConformanceTest, ClientThatComesBeforeTheConnectLosesNothing) {
  const auto client = world_->connect(kName);
  ASSERT_NE(client, nullptr);
  ASSERT_TRUE(client->write({1, 2}));
  Bytes first(1);
  EXPECT_EQ(read(&first),
            world_->servesBeforeConnect() ? kPipeOk : pipeError(error::kPipeListening));
  EXPECT_EQ(connectPipe(), pipeError(error::kPipeConnected));
  if (!world_->servesBeforeConnect()) {
    EXPECT_EQ(read(&first), kPipeOk);
  }
  Bytes second(1);
  EXPECT_EQ(read(&second), kPipeOk);
  EXPECT_EQ(first, Bytes{1});
  EXPECT_EQ(second, Bytes{2});
}

TEST_P(PipeConformanceTest, SecondClientIsTurnedAwayAndTheFirstNoticesNothing) {
  const auto client = connected();
  for (int attempt = 0; attempt < 3; ++attempt) EXPECT_EQ(world_->connect(kName), nullptr);
  ASSERT_TRUE(client->write({1}));
  Bytes bytes(1);
  EXPECT_EQ(read(&bytes), kPipeOk);
  PipeCallThread writing([this] { return pipes_.write(pipe_, "ab", 2); });
  EXPECT_EQ(client->read(2), (Bytes{'a', 'b'}));
  EXPECT_EQ(writing.outcome(), kPipeOk);
}

TEST_P(PipeConformanceTest, TransfersWithoutAClientFailAtOnce) {
  Bytes bytes(1);
  EXPECT_EQ(read(&bytes), pipeError(error::kPipeListening));
  EXPECT_EQ(write(bytes), pipeError(error::kPipeListening));
  EXPECT_EQ(flush(), world_->flushWithoutClient());
}

TEST_P(PipeConformanceTest, TransfersAfterDisconnectFailAtOnce) {
  const auto client = connected();
  ASSERT_EQ(disconnect(), kPipeOk);
  Bytes bytes(1);
  EXPECT_EQ(read(&bytes), pipeError(world_->errorAfterDisconnect()));
  EXPECT_EQ(write(bytes), pipeError(world_->errorAfterDisconnect()));
  EXPECT_EQ(flush(), world_->flushAfterDisconnect());
}

TEST_P(PipeConformanceTest, ReadWaitsForAllBytesOrTheFirstOnes) {
  const auto client = connected();
  Bytes bytes(4);
  PipeCallThread call([&] { return pipes_.read(pipe_, bytes.data(), 4); });
  world_->waitUntilBlocked(pipe_, call);
  ASSERT_TRUE(client->write({1, 2}));
  if (world_->readReturnsWhatIsThere()) {
    EXPECT_EQ(call.outcome(), kPipeOk);
    EXPECT_EQ(bytes, (Bytes{1, 2, 0, 0}));
    return;
  }
  ASSERT_TRUE(client->write({3}));
  world_->waitUntilBlocked(pipe_, call);
  ASSERT_TRUE(client->write({4, 5}));
  EXPECT_EQ(call.outcome(), kPipeOk);
  EXPECT_EQ(bytes, (Bytes{1, 2, 3, 4}));
  Bytes next(1);
  EXPECT_EQ(read(&next), kPipeOk);
  EXPECT_EQ(next, Bytes{5});
}

TEST_P(PipeConformanceTest, FieldsWrittenTogetherAreReadOneByOne) {
  const auto client = connected();
  ASSERT_TRUE(client->write({1, 0, 0, 0, 2, 0, 0, 0}));
  Bytes bytes(4);
  EXPECT_EQ(read(&bytes), kPipeOk);
  EXPECT_EQ(bytes, (Bytes{1, 0, 0, 0}));
  EXPECT_EQ(read(&bytes), kPipeOk);
  EXPECT_EQ(bytes, (Bytes{2, 0, 0, 0}));
}

TEST_P(PipeConformanceTest, TransferOfNothingSucceedsWithAClient) {
  const auto client = connected();
  EXPECT_EQ(outcomeOf([this] { return pipes_.write(pipe_, nullptr, 0); }), kPipeOk);
  EXPECT_EQ(flush(), kPipeOk);
  PipeCallThread call([this] { return pipes_.read(pipe_, nullptr, 0); });
  if (world_->readReturnsWhatIsThere()) {
    world_->waitUntilBlocked(pipe_, call);
    ASSERT_TRUE(client->write({1}));
  }
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_P(PipeConformanceTest, BytesOfAClientThatLeftAreStillRead) {
  auto client = connected();
  ASSERT_TRUE(client->write({1, 2, 3}));
  if (!world_->leavingClientTakesItsBytes()) client.reset();
  Bytes bytes(3);
  EXPECT_EQ(read(&bytes), kPipeOk);
  EXPECT_EQ(bytes, (Bytes{1, 2, 3}));
  client.reset();
  EXPECT_EQ(read(&bytes), pipeError(error::kBrokenPipe));
}

TEST_P(PipeConformanceTest, ClientThatLeavesBreaksTheReadThatWaitsForIt) {
  auto client = connected();
  if (!world_->readReturnsWhatIsThere()) {
    ASSERT_TRUE(client->write({1, 2, 3}));
  }
  Bytes bytes(4);
  PipeCallThread call([&] { return pipes_.read(pipe_, bytes.data(), 4); });
  world_->waitUntilBlocked(pipe_, call);
  client.reset();
  EXPECT_EQ(call.outcome(), pipeError(error::kBrokenPipe));
}

TEST_P(PipeConformanceTest, WriteToAClientThatLeftFails) {
  connected();
  const PipeOutcome outcome = write({1});
  EXPECT_FALSE(outcome.ok);
  EXPECT_THAT(outcome.error, AnyOf(error::kNoData, error::kBrokenPipe));
}

TEST_P(PipeConformanceTest, ClientThatLeavesWithACommandUnread_LeavesNothingToRead) {
  auto client = connected();
  ASSERT_TRUE(client->write({1, 2, 3}));
  PipeCallThread call([this] { return pipes_.write(pipe_, "ab", 2) && pipes_.flush(pipe_); });
  world_->waitUntilBlocked(pipe_, call);
  client.reset();
  EXPECT_FALSE(call.outcome().ok);
  Bytes bytes(1);
  EXPECT_EQ(read(&bytes), pipeError(error::kBrokenPipe));
}

TEST_P(PipeConformanceTest, ClientThatLeavesBeforeTheCommand_LeavesNothingToReadAfterIt) {
  auto client = connected();
  ASSERT_TRUE(client->write({1, 2, 3}));
  client.reset();
  EXPECT_FALSE(write({1}).ok);
  flush();
  Bytes bytes(1);
  EXPECT_EQ(read(&bytes), pipeError(error::kBrokenPipe));
}

TEST_P(PipeConformanceTest, WriteWaitsForItsReader) {
  const auto client = connected();
  PipeCallThread call([this] { return pipes_.write(pipe_, "abc", 3); });
  if (world_->writeWaitsForReader()) world_->waitUntilBlocked(pipe_, call);
  EXPECT_EQ(client->read(3), (Bytes{'a', 'b', 'c'}));
  EXPECT_EQ(call.outcome(), kPipeOk);
  EXPECT_EQ(flush(), kPipeOk);
}

TEST_P(PipeConformanceTest, LargeMessagesTravelWholeBothWays) {
  const auto client = connected();
  Bytes sent(300000);
  for (std::size_t i = 0; i < sent.size(); ++i)
    sent[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
  PipeCallThread writing([&] {
    return pipes_.write(pipe_, sent.data(), static_cast<std::uint32_t>(sent.size())) &&
           pipes_.flush(pipe_);
  });
  EXPECT_EQ(client->read(sent.size()), sent);
  EXPECT_EQ(writing.outcome(), kPipeOk);

  Bytes received(sent.size());
  PipeCallThread reading([&] {
    return pipes_.read(pipe_, received.data(), static_cast<std::uint32_t>(received.size()));
  });
  EXPECT_TRUE(client->write(sent));
  EXPECT_EQ(reading.outcome(), kPipeOk);
  EXPECT_EQ(received, sent);
}

TEST_P(PipeConformanceTest, CancelWithNothingBlockedReachesNoLaterOperation) {
  EXPECT_EQ(cancel(), world_->cancelOfNothing());
  const auto client = connected();
  EXPECT_EQ(cancel(), world_->cancelOfNothing());
  ASSERT_TRUE(client->write({1}));
  Bytes bytes(1);
  EXPECT_EQ(read(&bytes), kPipeOk);
  EXPECT_EQ(cancel(), world_->cancelOfNothing());
}

TEST_P(PipeConformanceTest, CancelReleasesAConnectAndTheNextOneServes) {
  PipeCallThread call([this] { return pipes_.connect(pipe_); });
  world_->waitUntilBlocked(pipe_, call);
  EXPECT_EQ(cancel(), kPipeOk);
  EXPECT_EQ(call.outcome(), pipeError(error::kOperationAborted));
  connected();
}

TEST_P(PipeConformanceTest, CancelReleasesAReadAndTheNextOneServes) {
  const auto client = connected();
  Bytes bytes(1);
  PipeCallThread call([&] { return pipes_.read(pipe_, bytes.data(), 1); });
  world_->waitUntilBlocked(pipe_, call);
  EXPECT_EQ(cancel(), kPipeOk);
  EXPECT_EQ(call.outcome(), pipeError(error::kOperationAborted));
  EXPECT_EQ(cancel(), world_->cancelOfNothing());
  ASSERT_TRUE(client->write({9}));
  EXPECT_EQ(read(&bytes), kPipeOk);
  EXPECT_EQ(bytes, Bytes{9});
}

TEST_P(PipeConformanceTest, CancelReleasesAWrite) {
  const auto client = connected();
  const Bytes large(4 * 1024 * 1024);
  PipeCallThread call(
      [&] { return pipes_.write(pipe_, large.data(), static_cast<std::uint32_t>(large.size())); });
  world_->waitUntilBlocked(pipe_, call);
  EXPECT_EQ(cancel(), kPipeOk);
  EXPECT_EQ(call.outcome(), pipeError(error::kOperationAborted));
}

TEST_P(PipeConformanceTest, DisconnectOfAnIdlePipe) {
  EXPECT_EQ(disconnect(), world_->disconnectWithoutClient());
}

TEST_P(PipeConformanceTest, SecondDisconnect) {
  const auto client = connected();
  EXPECT_EQ(disconnect(), kPipeOk);
  EXPECT_EQ(disconnect(),
            world_->secondDisconnectFails() ? pipeError(error::kPipeNotConnected) : kPipeOk);
}

TEST_P(PipeConformanceTest, DisconnectDropsTheClient) {
  const auto client = connected();
  EXPECT_EQ(disconnect(), kPipeOk);
  EXPECT_TRUE(client->waitForDrop());
  EXPECT_FALSE(client->write({1}));
}

TEST_P(PipeConformanceTest, UnreadBytesDoNotReachTheNextClientsReads) {
  const auto first = connected();
  ASSERT_TRUE(first->write({1, 1, 1, 1}));
  ASSERT_EQ(disconnect(), kPipeOk);
  PipeCallThread call([this] { return pipes_.connect(pipe_); });
  world_->waitUntilBlocked(pipe_, call);
  const auto second = world_->connect(kName);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(call.outcome(), kPipeOk);
  ASSERT_TRUE(second->write({2}));
  Bytes bytes(1);
  EXPECT_EQ(read(&bytes), kPipeOk);
  EXPECT_EQ(bytes, Bytes{2});
}

TEST_P(PipeConformanceTest, DisconnectedPipeTakesTheNextClient) {
  for (int round = 0; round < 20; ++round) {
    PipeCallThread call([this] { return pipes_.connect(pipe_); });
    if (!world_->listensAfterDisconnect()) world_->waitUntilBlocked(pipe_, call);
    const auto client = world_->connect(kName);
    ASSERT_NE(client, nullptr);
    EXPECT_THAT(call.outcome().error, AnyOf(error::kSuccess, error::kPipeConnected));
    EXPECT_EQ(disconnect(), kPipeOk);
  }
}

TEST_P(PipeConformanceTest, DisconnectMeetsABlockedRead) {
  const auto client = connected();
  Bytes bytes(1);
  PipeCallThread reading([&] { return pipes_.read(pipe_, bytes.data(), 1); });
  world_->waitUntilBlocked(pipe_, reading);
  PipeCallThread disconnecting([this] { return pipes_.disconnect(pipe_); });
  if (world_->disconnectWaits()) {
    // It would wait for ever; a cancel lets both go.
    EXPECT_EQ(cancel(), kPipeOk);
    EXPECT_EQ(reading.outcome(), pipeError(error::kOperationAborted));
  } else {
    EXPECT_EQ(reading.outcome(), pipeError(world_->errorOfDroppedRead()));
  }
  EXPECT_EQ(disconnecting.outcome(), kPipeOk);
}

TEST_P(PipeConformanceTest, CloseDropsTheClient) {
  const auto client = connected();
  EXPECT_TRUE(pipes_.close(pipe_));
  EXPECT_TRUE(client->waitForDrop());
  EXPECT_EQ(cancel(), pipeError(error::kInvalidHandle));
  pipe_ = platform::noPipe();
}

INSTANTIATE_TEST_SUITE_P(Implementations, PipeConformanceTest,
                         testing::Values(PipeWorldMaker{"System", &makeSystemPipeWorld},
                                         PipeWorldMaker{"Serialising", &makeSerialisingPipeWorld}),
                         [](const auto& maker) { return std::string(maker.param.name); });

}  // namespace

}  // namespace zelta::test
