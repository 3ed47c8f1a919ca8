// What the system's pipes add on Linux to what every implementation does.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "platform/process/error.h"
#include "tests/platform/pipe/system_pipe_fixture_linux.h"

namespace zelta::test {

namespace {

using testing::AnyOf;

class PipeLinuxTest : public SystemPipeTest {
 protected:
  void SetUp() override { createPipe(); }
};

TEST_F(PipeLinuxTest, NamesThatAreNoPipeAreRefused) {
  expectRefused(error::kInvalidName, "\\\\.\\pipes\\A");
  expectRefused(error::kInvalidName, "\\\\.\\pipe\\A\\..\\B");
}

TEST_F(PipeLinuxTest, PathTooLongForASocketIsRefused) {
  const std::string longest =
      std::string("\\\\.\\pipe\\") + std::string(106 - folder_.file("root/pipe/").size(), 'n');
  const PipeHandleValue pipe = create(longest);
  EXPECT_NE(pipe, platform::invalidPipe());
  EXPECT_TRUE(pipes_.close(pipe));
  expectRefused(error::kNameTooLong, longest + 'n');
}

TEST_F(PipeLinuxTest, UnknownSecurityDescriptorIsRefused) {
  platform::PipeArguments arguments;
  arguments.securityDescriptor = &arguments;
  EXPECT_EQ(pipes_.create("\\\\.\\pipe\\other", arguments), platform::invalidPipe());
  EXPECT_EQ(platform::lastError(), error::kInvalidSecurityDescriptor);
}

TEST_F(PipeLinuxTest, MalformedSecurityDescriptorTextFails) {
  platform::SecurityDescriptor descriptor = nullptr;
  EXPECT_FALSE(pipes_.convertSecurityDescriptor("D:(A;OICI;GA;;;LS", &descriptor));
  EXPECT_EQ(platform::lastError(), error::kInvalidParameter);
  EXPECT_EQ(descriptor, nullptr);
}

TEST_F(PipeLinuxTest, WithoutSecurityDescriptorTheOwnUserIsLetIn) {
  const std::string name = "\\\\.\\pipe\\own";
  const PipeHandleValue pipe = pipes_.create(name, {});
  ASSERT_NE(pipe, platform::invalidPipe());
  PipeClient client;
  EXPECT_TRUE(client.connect(name));
  EXPECT_EQ(outcomeOf([&] { return pipes_.connect(pipe); }), pipeError(error::kPipeConnected));
  EXPECT_TRUE(pipes_.close(pipe));
}

TEST_F(PipeLinuxTest, HandlesAreNotGivenOutTwice) {
  std::set<PipeHandleValue> handles{pipe_};
  for (int round = 0; round < 10; ++round) {
    const PipeHandleValue pipe = create("\\\\.\\pipe\\again");
    EXPECT_TRUE(handles.insert(pipe).second);
    EXPECT_TRUE(pipes_.close(pipe));
  }
}

TEST_F(PipeLinuxTest, LastErrorIsEachThreadsOwn) {
  platform::setLastError(error::kCancelled);
  std::thread([this] {
    EXPECT_EQ(platform::lastError(), error::kSuccess);
    EXPECT_FALSE(pipes_.cancel(pipe_));
    EXPECT_EQ(platform::lastError(), error::kNotFound);
  }).join();
  EXPECT_EQ(platform::lastError(), error::kCancelled);
}

TEST_F(PipeLinuxTest, SecondClientsConnectIsRefusedAtOnce) {
  PipeClient first = connected();
  PipeClient second;
  EXPECT_FALSE(second.connect(kPipeName));
  EXPECT_EQ(second.error(), ECONNREFUSED);
  ASSERT_EQ(disconnect(), kPipeOk);
  EXPECT_TRUE(second.connect(kPipeName)) << "listens again when disconnect returns";
  EXPECT_TRUE(first.waitForDrop());
}

TEST_F(PipeLinuxTest, ClientWaitingBehindTheFirstIsDropped) {
  PipeClient first;
  PipeClient second;
  PipeClient third;
  for (PipeClient* client : {&first, &second, &third}) ASSERT_TRUE(client->connect(kPipeName));
  EXPECT_EQ(connectPipe(), pipeError(error::kPipeConnected));
  EXPECT_TRUE(second.waitForDrop());
  EXPECT_TRUE(third.waitForDrop());
  ASSERT_TRUE(first.writeNumber(1));
  Bytes bytes(4);
  EXPECT_EQ(read(&bytes), kPipeOk);
}

TEST_F(PipeLinuxTest, ClientCountsOnlyOnceItWasLetIn) {
  PipeClient client;
  ASSERT_TRUE(client.connect(kPipeName));
  ASSERT_TRUE(client.writeNumber(5));
  Bytes bytes(4);
  EXPECT_EQ(read(&bytes), pipeError(error::kPipeListening));
  EXPECT_EQ(write(bytes), pipeError(error::kPipeListening));
  EXPECT_EQ(flush(), pipeError(error::kPipeListening));
  EXPECT_EQ(disconnect(), kPipeOk) << "and is not the one that disconnect drops";
  EXPECT_EQ(connectPipe(), pipeError(error::kPipeConnected));
  EXPECT_EQ(read(&bytes), kPipeOk);
  EXPECT_EQ(bytes, (Bytes{5, 0, 0, 0}));
}

TEST_F(PipeLinuxTest, ClientThatLeftBeforeItWasLetInIsPassedOver) {
  PipeClient gone;
  PipeClient client;
  ASSERT_TRUE(gone.connect(kPipeName));
  ASSERT_TRUE(gone.writeNumber(1));
  ASSERT_TRUE(client.connect(kPipeName));
  ASSERT_TRUE(client.writeNumber(2));
  gone.close();
  EXPECT_EQ(connectPipe(), pipeError(error::kPipeConnected));
  Bytes bytes(4);
  EXPECT_EQ(read(&bytes), kPipeOk);
  EXPECT_EQ(bytes, (Bytes{2, 0, 0, 0}));
}

TEST_F(PipeLinuxTest, ConnectWaitsOnWhereTheOnlyClientHasLeftAgain) {
  PipeClient gone;
  ASSERT_TRUE(gone.connect(kPipeName));
  gone.close();
  PipeCallThread call([this] { return pipes_.connect(pipe_); });
  call.waitUntilBlocked();
  EXPECT_FALSE(call.ended());
  PipeClient client;
  ASSERT_TRUE(client.connect(kPipeName));
  EXPECT_EQ(call.outcome(), kPipeOk);
}

TEST_F(PipeLinuxTest, BytesOfAClientThatLeftBeforeItWasLetInAreRead) {
  PipeClient gone;
  ASSERT_TRUE(gone.connect(kPipeName));
  ASSERT_TRUE(gone.writeNumber(3));
  gone.close();
  EXPECT_EQ(connectPipe(), pipeError(error::kPipeConnected));
  Bytes bytes(4);
  EXPECT_EQ(read(&bytes), kPipeOk);
  EXPECT_EQ(read(&bytes), pipeError(error::kBrokenPipe));
}

TEST_F(PipeLinuxTest, ConnectReplacesAClientThatHasLeft) {
  PipeClient first = connected();
  first.close();
  PipeCallThread call([this] { return pipes_.connect(pipe_); });
  PipeClient second;
  ASSERT_TRUE(second.connectWhenListening(kPipeName));
  EXPECT_THAT(call.outcome().error, AnyOf(error::kSuccess, error::kPipeConnected));
  ASSERT_TRUE(second.writeNumber(1));
  Bytes bytes(4);
  EXPECT_EQ(read(&bytes), kPipeOk);
}

TEST_F(PipeLinuxTest, WriteToAClientThatLeftWithBytesUnreadFails) {
  PipeClient client = connected();
  ASSERT_EQ(write({1, 2}), kPipeOk);
  client.close();
  EXPECT_THAT(write({3}).error, AnyOf(error::kNoData, error::kBrokenPipe));
  Bytes bytes(1);
  EXPECT_EQ(read(&bytes), pipeError(error::kBrokenPipe));
}

TEST_F(PipeLinuxTest, BlockedWriteEndsWhenTheClientLeaves) {
  PipeClient client = connected();
  const Bytes large(4 * 1024 * 1024);
  PipeCallThread call(
      [&] { return pipes_.write(pipe_, large.data(), static_cast<std::uint32_t>(large.size())); });
  call.waitUntilBlocked();
  client.close();
  EXPECT_THAT(call.outcome().error, AnyOf(error::kNoData, error::kBrokenPipe));
}

TEST_F(PipeLinuxTest, CancelReleasesTheBlockedCallsOfSeveralThreads) {
  PipeClient client = connected();
  const Bytes large(4 * 1024 * 1024);
  PipeCallThread writing(
      [&] { return pipes_.write(pipe_, large.data(), static_cast<std::uint32_t>(large.size())); });
  PipeCallThread reading([this] { return readByte(); });
  writing.waitUntilBlocked();
  PipeCallThread flushing([this] { return pipes_.flush(pipe_); });
  for (PipeCallThread* call : {&reading, &flushing}) call->waitUntilBlocked();
  EXPECT_EQ(cancel(), kPipeOk);
  for (PipeCallThread* call : {&writing, &reading, &flushing}) {
    EXPECT_EQ(call->outcome(), pipeError(error::kOperationAborted));
  }
  EXPECT_EQ(cancel(), pipeError(error::kNotFound));
}

TEST_F(PipeLinuxTest, CancelReleasesSeveralConnects) {
  PipeCallThread first([this] { return pipes_.connect(pipe_); });
  PipeCallThread second([this] { return pipes_.connect(pipe_); });
  for (PipeCallThread* call : {&first, &second}) call->waitUntilBlocked();
  EXPECT_EQ(cancel(), kPipeOk);
  for (PipeCallThread* call : {&first, &second}) {
    EXPECT_EQ(call->outcome(), pipeError(error::kOperationAborted));
  }
}

TEST_F(PipeLinuxTest, SeveralConnectsShareTheOneClient) {
  PipeCallThread first([this] { return pipes_.connect(pipe_); });
  PipeCallThread second([this] { return pipes_.connect(pipe_); });
  for (PipeCallThread* call : {&first, &second}) call->waitUntilBlocked();
  PipeClient client;
  ASSERT_TRUE(client.connect(kPipeName));
  const std::set<std::uint32_t> errors{first.outcome().error, second.outcome().error};
  EXPECT_EQ(errors, (std::set<std::uint32_t>{error::kSuccess, error::kPipeConnected}));
}

TEST_F(PipeLinuxTest, WritesOfSeveralThreadsStayWhole) {
  PipeClient client = connected();
  constexpr std::size_t kSize = 300000;
  std::vector<std::unique_ptr<PipeCallThread>> calls;
  for (std::uint8_t mark = 1; mark <= 4; ++mark) {
    calls.push_back(std::make_unique<PipeCallThread>([this, mark] {
      const Bytes message(kSize, mark);
      return pipes_.write(pipe_, message.data(), kSize);
    }));
  }
  for (std::size_t message = 0; message < calls.size(); ++message) {
    const Bytes bytes = client.read(kSize);
    ASSERT_EQ(bytes.size(), kSize);
    EXPECT_EQ(bytes, Bytes(kSize, bytes.front()));
  }
  for (const auto& call : calls) EXPECT_EQ(call->outcome(), kPipeOk);
}

TEST_F(PipeLinuxTest, ReadsOfSeveralThreadsStayWhole) {
  PipeClient client = connected();
  constexpr std::size_t kSize = 100000;
  std::vector<Bytes> read(4, Bytes(kSize));
  std::vector<std::unique_ptr<PipeCallThread>> calls;
  for (Bytes& bytes : read) {
    calls.push_back(std::make_unique<PipeCallThread>(
        [this, &bytes] { return pipes_.read(pipe_, bytes.data(), kSize); }));
  }
  for (std::uint8_t mark = 1; mark <= 4; ++mark) ASSERT_TRUE(client.write(Bytes(kSize, mark)));
  std::set<std::uint8_t> marks;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(calls[i]->outcome(), kPipeOk);
    EXPECT_EQ(read[i], Bytes(kSize, read[i].front()));
    marks.insert(read[i].front());
  }
  EXPECT_EQ(marks.size(), calls.size());
}

TEST_F(PipeLinuxTest, DisconnectEndsABlockedConnectAndThePathServesOn) {
  PipeCallThread call([this] { return pipes_.connect(pipe_); });
  call.waitUntilBlocked();
  EXPECT_EQ(disconnect(), kPipeOk);
  EXPECT_EQ(call.outcome(), pipeError(error::kOperationAborted));
  connected();
}

TEST_F(PipeLinuxTest, CloseEndsBlockedCalls) {
  PipeCallThread connecting([this] { return pipes_.connect(pipe_); });
  connecting.waitUntilBlocked();
  EXPECT_TRUE(pipes_.close(pipe_));
  EXPECT_EQ(connecting.outcome(), pipeError(error::kOperationAborted));

  createPipe();
  PipeClient client = connected();
  PipeCallThread reading([this] { return readByte(); });
  reading.waitUntilBlocked();
  EXPECT_TRUE(pipes_.close(pipe_));
  EXPECT_EQ(reading.outcome(), pipeError(error::kBrokenPipe));
  pipe_ = platform::noPipe();
}

TEST_F(PipeLinuxTest, WhatTheServerDidNotReadIsGoneWithTheClient) {
  PipeClient first = connected();
  ASSERT_TRUE(first.write(Bytes(100000, 1)));
  ASSERT_EQ(disconnect(), kPipeOk);
  EXPECT_TRUE(first.waitForDrop());
  PipeClient second = connected();
  ASSERT_TRUE(second.writeNumber(2));
  Bytes bytes(4);
  EXPECT_EQ(read(&bytes), kPipeOk);
  EXPECT_EQ(bytes, (Bytes{2, 0, 0, 0}));
}

TEST_F(PipeLinuxTest, NoDescriptorIsLeftOpen) {
  EXPECT_TRUE(pipes_.close(pipe_));
  pipe_ = platform::noPipe();
  const std::size_t before = openDescriptors();
  for (int round = 0; round < 20; ++round) {
    createPipe();
    PipeCallThread connecting([this] { return pipes_.connect(pipe_); });
    connecting.waitUntilBlocked();
    EXPECT_EQ(cancel(), kPipeOk);
    connecting.outcome();
    PipeClient client = connected();
    ASSERT_EQ(write({1}), kPipeOk);
    PipeCallThread flushing([this] { return pipes_.flush(pipe_); });
    PipeCallThread reading([this] { return readByte(); });
    flushing.waitUntilBlocked();
    reading.waitUntilBlocked();
    if (round % 2 == 0) {
      ASSERT_EQ(disconnect(), kPipeOk);
    }
    expectRefused(error::kAccessDenied);
    EXPECT_TRUE(pipes_.close(pipe_));
    client.close();
    // The threads have not been joined: the calls gave up their descriptors by themselves.
    EXPECT_LE(openDescriptors(), before);
  }
  pipe_ = platform::noPipe();
}

}  // namespace

}  // namespace zelta::test
