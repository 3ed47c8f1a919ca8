// The system's pipes on Linux, beyond the common behaviour: who counts as a client, calls of
// several threads, and a process without descriptors.
#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <thread>

#include "tests/platform/descriptor_shortage_linux.h"
#include "tests/platform/pipe/system_pipe_fixture_linux.h"
#include "tests/support/process_state.h"

namespace zelta::test {

namespace {

using testing::AnyOf;

constexpr int kRounds = 300;
const PipeOutcome kAborted{false, error::kOperationAborted};

class PipeEndTest : public SystemPipeTest {
 protected:
  void SetUp() override { createPipe(); }

  // Cancels until the operation has ended, like a caller that stops.
  PipeOutcome outcomeOfCancelled(const std::function<bool()>& waiting) {
    PipeCallThread call(waiting);
    while (!call.ended() && !pipes_.cancel(pipe_)) std::this_thread::yield();
    return call.outcome();
  }
};

TEST_F(PipeEndTest, UnusableNameOrDescriptor_IsRefused) {
  const std::string prefix = "\\\\.\\pipe\\";
  const std::string longest = prefix + std::string(106 - folder_.file("root/pipe/").size(), 'n');
  expectRefused(error::kInvalidName, "\\\\.\\pipes\\A");
  expectRefused(error::kInvalidName, prefix + "A\\..\\B");
  expectRefused(error::kNameTooLong, longest + 'n');
  EXPECT_TRUE(pipes_.close(create(longest)));
  platform::PipeArguments unknown;
  unknown.securityDescriptor = &unknown;
  EXPECT_EQ(pipes_.create(prefix + "B", unknown), platform::invalidPipe());
  EXPECT_EQ(platform::lastError(), error::kInvalidSecurityDescriptor);
  platform::SecurityDescriptor descriptor = nullptr;
  EXPECT_FALSE(pipes_.convertSecurityDescriptor("D:(A;OICI;GA;;;LS", &descriptor));
  EXPECT_EQ(platform::lastError(), error::kInvalidParameter);
  EXPECT_EQ(descriptor, nullptr);
}

TEST_F(PipeEndTest, NoSecurityDescriptor_AdmitsTheOwnUser) {
  closePipe();
  pipe_ = pipes_.create(kPipeName, {});
  ASSERT_NE(pipe_, platform::invalidPipe());
  connected();
}

TEST_F(PipeEndTest, HandleOfAClosedPipe_IsNotGivenOutAgain) {
  std::set<PipeHandleValue> handles;
  for (int round = 0; round < 10; ++round) {
    EXPECT_TRUE(handles.insert(pipe_).second);
    closePipe();
    createPipe();
  }
}

TEST_F(PipeEndTest, SecondClientsConnect_IsRefusedUntilDisconnectReturns) {
  PipeClient first = connected();
  PipeClient second;
  EXPECT_FALSE(second.connect(kPipeName));
  EXPECT_EQ(second.error(), ECONNREFUSED);
  ASSERT_EQ(disconnect(), kPipeOk);
  EXPECT_TRUE(second.connect(kPipeName));
  EXPECT_TRUE(first.waitForDrop());
}

TEST_F(PipeEndTest, ClientsThatWaitWhenTheFirstIsLetIn_AreDropped) {
  PipeClient clients[3];
  for (PipeClient& client : clients) ASSERT_TRUE(client.connect(kPipeName));
  EXPECT_EQ(outcomeOf(connect_), pipeError(error::kPipeConnected));
  EXPECT_TRUE(clients[1].waitForDrop());
  EXPECT_TRUE(clients[2].waitForDrop());
  expectRead(clients[0]);
}

TEST_F(PipeEndTest, ClientThatConnectHasNotLetIn_IsNobodysAndSurvivesADisconnect) {
  PipeClient client;
  ASSERT_TRUE(client.connect(kPipeName));
  Bytes bytes(1);
  EXPECT_EQ(write(bytes), pipeError(error::kPipeListening));
  EXPECT_EQ(flush(), pipeError(error::kPipeListening));
  EXPECT_EQ(disconnect(), kPipeOk);
  EXPECT_EQ(outcomeOf(connect_), pipeError(error::kPipeConnected));
  expectRead(client);
}

TEST_F(PipeEndTest, ClientThatLeftBeforeItWasLetIn_IsPassedOverIfAnotherWaits) {
  PipeClient gone;
  PipeClient client;
  ASSERT_TRUE(gone.connect(kPipeName));
  ASSERT_TRUE(gone.writeNumber(1));
  ASSERT_TRUE(client.connect(kPipeName));
  gone.close();
  EXPECT_EQ(outcomeOf(connect_), pipeError(error::kPipeConnected));
  expectRead(client);
}

TEST_F(PipeEndTest, OnlyClientThatLeftBeforeItWasLetIn_CountsIfItLeftBytes) {
  {
    PipeClient gone;
    ASSERT_TRUE(gone.connect(kPipeName));
  }
  BlockedPipeCall connecting(connect_);
  EXPECT_FALSE(connecting.ended());
  expectServed(connecting);
  ASSERT_EQ(disconnect(), kPipeOk);
  {
    PipeClient gone;
    ASSERT_TRUE(gone.connect(kPipeName));
    ASSERT_TRUE(gone.writeNumber(3));
  }
  EXPECT_EQ(outcomeOf(connect_), pipeError(error::kPipeConnected));
  Bytes bytes(4);
  EXPECT_EQ(read(&bytes), kPipeOk);
  EXPECT_EQ(read(&bytes), pipeError(error::kBrokenPipe));
}

TEST_F(PipeEndTest, ClientThatHasLeft_IsReplacedByTheNextConnect) {
  connected();
  PipeCallThread connecting(connect_);
  expectServed(connecting);
}

TEST_F(PipeEndTest, ClientThatLeaves_EndsABlockedWrite) {
  PipeClient client = connected();
  BlockedPipeCall writing(writeLarge_);
  client.close();
  EXPECT_THAT(writing.outcome().error, AnyOf(error::kNoData, error::kBrokenPipe));
}

TEST_F(PipeEndTest, Cancel_ReleasesTheBlockedCallsOfAllThreads) {
  {
    BlockedPipeCall first(connect_);
    BlockedPipeCall second(connect_);
    EXPECT_EQ(cancel(), kPipeOk);
    EXPECT_EQ(first.outcome(), kAborted);
    EXPECT_EQ(second.outcome(), kAborted);
  }
  PipeClient client = connected();
  BlockedPipeCall writing(writeLarge_);
  BlockedPipeCall reading(readByte_);
  BlockedPipeCall flushing(flush_);
  EXPECT_EQ(cancel(), kPipeOk);
  for (PipeCallThread* call : {&writing, &reading, &flushing}) EXPECT_EQ(call->outcome(), kAborted);
  EXPECT_EQ(cancel(), pipeError(error::kNotFound));
}

TEST_F(PipeEndTest, SeveralConnects_ShareTheOneClient) {
  BlockedPipeCall first(connect_);
  BlockedPipeCall second(connect_);
  PipeClient client;
  ASSERT_TRUE(client.connect(kPipeName));
  const std::set<std::uint32_t> errors{first.outcome().error, second.outcome().error};
  EXPECT_EQ(errors, (std::set<std::uint32_t>{error::kSuccess, error::kPipeConnected}));
}

TEST_F(PipeEndTest, DisconnectAndClose_EndBlockedCalls) {
  {
    BlockedPipeCall connecting(connect_);
    EXPECT_EQ(disconnect(), kPipeOk);
    EXPECT_EQ(connecting.outcome(), kAborted);
  }
  const PipeClient client = connected();
  BlockedPipeCall reading(readByte_);
  closePipe();
  EXPECT_EQ(reading.outcome(), pipeError(error::kBrokenPipe));
  createPipe();
  BlockedPipeCall connecting(connect_);
  closePipe();
  EXPECT_EQ(connecting.outcome(), kAborted);
}

TEST_F(PipeEndTest, ClosedPipe_LeavesNoDescriptorOpen) {
  closePipe();
  const std::size_t before = openFiles().size();
  for (int round = 0; round < 20; ++round) {
    createPipe();
    EXPECT_EQ(outcomeOfCancelled(connect_), kAborted);
    PipeClient client = connected();
    ASSERT_EQ(write({1}), kPipeOk);
    BlockedPipeCall flushing(flush_);
    BlockedPipeCall reading(readByte_);
    if (round % 2 == 0) {
      ASSERT_EQ(disconnect(), kPipeOk);
    }
    expectRefused(error::kAccessDenied);
    closePipe();
    client.close();
    // The threads have not been joined: the calls released their descriptors by themselves.
    EXPECT_LE(openFiles().size(), before);
  }
}

TEST_F(PipeEndTest, CancelMeetsACallThatBegins_TheCallEndsAndTheNextOneServes) {
  for (int round = 0; round < kRounds; ++round) ASSERT_EQ(outcomeOfCancelled(connect_), kAborted);
  PipeClient client = connected();
  for (int round = 0; round < kRounds; ++round) ASSERT_EQ(outcomeOfCancelled(readByte_), kAborted);
  expectRead(client);
}

// Either the byte or the cancel comes first.
TEST_F(PipeEndTest, CancelMeetsAReadThatCompletes_NoByteIsLost) {
  PipeClient client = connected();
  for (int round = 0; round < kRounds; ++round) {
    PipeCallThread reading(readByte_);
    std::thread writer([&] { client.write({1}); });
    cancel();
    writer.join();
    if (!reading.outcome().ok) {
      ASSERT_EQ(reading.outcome(), kAborted);
      ASSERT_TRUE(readByte_());
    }
  }
  expectRead(client);
}

TEST_F(PipeEndTest, CloseMeetsEveryCall_AllEndAndThePathIsFree) {
  closePipe();
  for (int round = 0; round < kRounds; ++round) {
    createPipe();
    PipeClient client;
    ASSERT_TRUE(client.connect(kPipeName));
    PipeCallThread connecting(connect_);
    PipeCallThread reading(readByte_);
    PipeCallThread disconnecting([this] { return pipes_.disconnect(pipe_); });
    if (round % 2 == 0) reading.waitUntilBlocked();
    ASSERT_TRUE(pipes_.close(pipe_));
    EXPECT_FALSE(reading.outcome().ok);
    connecting.outcome();
    disconnecting.outcome();
    ASSERT_FALSE(std::filesystem::exists(path()));
  }
  pipe_ = platform::noPipe();
}

#if !defined(__SANITIZE_ADDRESS__)  // the sanitizers look into memory by a pipe that they open

TEST_F(PipeEndTest, NoDescriptorLeft_ExchangesGoOn) {
  constexpr int kExchanges = 500;
  PipeClient client = connected();
  const DescriptorShortage shortage;
  std::thread agent([&] {
    for (int round = 0; round < kExchanges; ++round) {
      client.readNumber();
      std::this_thread::yield();
      client.writeNumber(client.readNumber().value_or(0));
    }
  });
  const auto timesAsleep = [] {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
  };
  const long before = timesAsleep();
  int exchanged = 0;
  for (int round = 0; round < kExchanges; ++round) {
    Bytes answer(4);
    if (write({2, 0, 0, 0}).ok && write({7, 0, 0, 0}).ok && flush().ok && read(&answer).ok &&
        answer == Bytes{7, 0, 0, 0}) {
      ++exchanged;
    }
  }
  EXPECT_EQ(exchanged, kExchanges);
  EXPECT_GT(timesAsleep(), before) << "none of the operations had to wait: nothing was tried";
  disconnect();  // an agent that still waits ends, too
  agent.join();
}

TEST_F(PipeEndTest, NoDescriptorLeft_CallsThatWaitAreCancelled) {
  {
    const DescriptorShortage shortage;
    EXPECT_EQ(outcomeOfCancelled(connect_), kAborted);
  }
  const PipeClient client = connected();
  const DescriptorShortage shortage;
  for (const auto& call : {readByte_, writeLarge_, flush_}) {
    EXPECT_EQ(outcomeOfCancelled(call), kAborted);
  }
}

TEST_F(PipeEndTest, NoDescriptorLeft_DisconnectEndsAReadAndTheNextConnectMakesGood) {
  PipeClient client = connected();
  {
    BlockedPipeCall reading(readByte_);
    const DescriptorShortage shortage;
    EXPECT_EQ(disconnect(), pipeError(error::kTooManyOpenFiles));
    EXPECT_EQ(reading.outcome(), pipeError(error::kBrokenPipe));
    EXPECT_TRUE(client.waitForDrop());
  }
  PipeCallThread connecting(connect_);
  expectServed(connecting);
}

TEST_F(PipeEndTest, NoDescriptorLeft_CreateAndConnectFailUntilThereAreSomeAgain) {
  PipeClient client;
  ASSERT_TRUE(client.connect(kPipeName));
  {
    const DescriptorShortage shortage;
    expectRefused(error::kTooManyOpenFiles, "\\\\.\\pipe\\other");
    EXPECT_EQ(outcomeOf(connect_), pipeError(error::kTooManyOpenFiles));
  }
  EXPECT_EQ(outcomeOf(connect_), pipeError(error::kPipeConnected));
}

#endif

}  // namespace

}  // namespace zelta::test
