// Calls that meet at every possible moment, by the hundreds. What must hold is that each ends and
// says why, and that the pipe serves afterwards.
#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "platform/process/error.h"
#include "tests/platform/pipe/system_pipe_fixture_linux.h"

namespace zelta::test {

namespace {

using testing::AnyOf;

constexpr int kRounds = 300;

class PipeRaceTest : public SystemPipeTest {
 protected:
  void SetUp() override { createPipe(); }

  // As a caller stops: cancels until the operation has ended.
  void cancelUntilEnded(const PipeCallThread& call) {
    while (!call.ended() && !pipes_.cancel(pipe_)) std::this_thread::yield();
  }
};

TEST_F(PipeRaceTest, CancelMeetsAReadThatBegins) {
  PipeClient client = connected();
  for (int round = 0; round < kRounds; ++round) {
    PipeCallThread call([this] { return readByte(); });
    cancelUntilEnded(call);
    ASSERT_EQ(call.outcome(), pipeError(error::kOperationAborted));
  }
  ASSERT_TRUE(client.write({1}));
  EXPECT_TRUE(readByte());
}

TEST_F(PipeRaceTest, CancelMeetsAConnectThatBegins) {
  for (int round = 0; round < kRounds; ++round) {
    PipeCallThread call([this] { return pipes_.connect(pipe_); });
    cancelUntilEnded(call);
    ASSERT_EQ(call.outcome(), pipeError(error::kOperationAborted));
  }
  connected();
}

// Either the byte or the cancel comes first; a byte is never lost.
TEST_F(PipeRaceTest, CancelMeetsAReadThatCompletes) {
  PipeClient client = connected();
  for (int round = 0; round < kRounds; ++round) {
    PipeCallThread call([this] { return readByte(); });
    std::thread writer([&] { client.write({1}); });
    cancel();
    writer.join();
    const PipeOutcome outcome = call.outcome();
    if (!outcome.ok) {
      ASSERT_EQ(outcome.error, error::kOperationAborted);
      ASSERT_TRUE(readByte());
    }
  }
  ASSERT_TRUE(client.writeNumber(0x04030201));
  Bytes bytes(4);
  EXPECT_EQ(read(&bytes), kPipeOk);
  EXPECT_EQ(bytes, (Bytes{1, 2, 3, 4}));
}

TEST_F(PipeRaceTest, SeveralCancelsMeetSeveralReads) {
  PipeClient client = connected();
  for (int round = 0; round < kRounds; ++round) {
    std::vector<std::unique_ptr<PipeCallThread>> reads;
    for (int i = 0; i < 3; ++i) {
      reads.push_back(std::make_unique<PipeCallThread>([this] { return readByte(); }));
    }
    PipeCallThread other([&] {
      for (const auto& call : reads) cancelUntilEnded(*call);
      return true;
    });
    for (const auto& call : reads) cancelUntilEnded(*call);
    other.outcome();
    // A cancel that reached an earlier read does not count for one that began later.
    for (const auto& call : reads) {
      while (!call->ended()) pipes_.cancel(pipe_);
      ASSERT_EQ(call->outcome(), pipeError(error::kOperationAborted));
    }
  }
}

TEST_F(PipeRaceTest, DisconnectMeetsReadAndWrite) {
  const Bytes large(1024 * 1024);
  for (int round = 0; round < kRounds; ++round) {
    PipeClient client = connected();
    PipeCallThread reading([this] { return readByte(); });
    PipeCallThread writing([&] {
      return pipes_.write(pipe_, large.data(), static_cast<std::uint32_t>(large.size()));
    });
    if (round % 2 == 0) reading.waitUntilBlocked();
    ASSERT_EQ(disconnect(), kPipeOk);
    ASSERT_THAT(reading.outcome().error, AnyOf(error::kBrokenPipe, error::kPipeListening));
    ASSERT_THAT(writing.outcome().error,
                AnyOf(error::kBrokenPipe, error::kNoData, error::kPipeListening));
  }
}

TEST_F(PipeRaceTest, DisconnectMeetsAConnectAndItsClient) {
  for (int round = 0; round < kRounds; ++round) {
    PipeCallThread connecting([this] { return pipes_.connect(pipe_); });
    std::thread arriving([] {
      PipeClient client;
      client.connect(kPipeName);
    });
    ASSERT_EQ(disconnect(), kPipeOk);
    arriving.join();
    // It may have begun after the disconnect and have missed its client, which has left again.
    cancelUntilEnded(connecting);
    ASSERT_THAT(connecting.outcome().error,
                AnyOf(error::kSuccess, error::kPipeConnected, error::kOperationAborted));
    ASSERT_EQ(disconnect(), kPipeOk);
  }
  connected();
}

TEST_F(PipeRaceTest, CloseMeetsEveryCall) {
  ASSERT_TRUE(pipes_.close(pipe_));
  for (int round = 0; round < kRounds; ++round) {
    createPipe();
    PipeClient client;
    ASSERT_TRUE(client.connect(kPipeName));
    PipeCallThread connecting([this] { return pipes_.connect(pipe_); });
    PipeCallThread reading([this] { return readByte(); });
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

// Clients storm the pipe; each is refused, dropped or served, and one is served at a time.
TEST_F(PipeRaceTest, OneOfManyClientsIsServedAtATime) {
  constexpr std::uint32_t kServed = 200;
  std::atomic<bool> stop{false};
  std::atomic<int> strange{0};
  std::vector<std::thread> clients;
  for (int i = 0; i < 3; ++i) {
    clients.emplace_back([&] {
      while (!stop) {
        PipeClient client;
        if (!client.connect(kPipeName)) continue;
        // The question is answered, or this client was never let in.
        if (!client.writeNumber(7)) continue;
        const auto answer = client.readNumber();
        if (answer && *answer != 8) ++strange;
        if (!answer && client.error() != 0 && client.error() != ECONNRESET) ++strange;
      }
    });
  }
  std::uint32_t served = 0;
  while (served < kServed) {
    const std::uint32_t outcome = connectPipe().error;
    ASSERT_THAT(outcome, AnyOf(error::kSuccess, error::kPipeConnected));
    Bytes question(4);
    if (read(&question).ok && question == Bytes{7, 0, 0, 0} && write({8, 0, 0, 0}).ok &&
        flush().ok) {
      ++served;
    }
    ASSERT_EQ(disconnect(), kPipeOk);
  }
  stop = true;
  ASSERT_TRUE(pipes_.close(pipe_));
  pipe_ = platform::noPipe();
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(strange, 0);
}

// Several creators of one name: exactly one has it at a time, also while its pipe is taken down.
TEST_F(PipeRaceTest, OneOfSeveralCreatorsHasTheName) {
  ASSERT_TRUE(pipes_.close(pipe_));
  pipe_ = platform::noPipe();
  std::atomic<int> holders{0};
  std::atomic<int> most{0};
  std::vector<std::thread> creators;
  for (int i = 0; i < 4; ++i) {
    creators.emplace_back([&] {
      for (int created = 0; created < kRounds / 3;) {
        const PipeHandleValue pipe = create();
        if (pipe == platform::invalidPipe()) {
          EXPECT_EQ(platform::lastError(), error::kAccessDenied);
          continue;
        }
        ++created;
        most = std::max(most.load(), ++holders);
        PipeClient client;
        EXPECT_TRUE(client.connect(kPipeName));
        --holders;
        EXPECT_TRUE(pipes_.close(pipe));
      }
    });
  }
  for (std::thread& creator : creators) creator.join();
  EXPECT_EQ(most, 1);
  EXPECT_FALSE(std::filesystem::exists(path()));
}

}  // namespace

}  // namespace zelta::test
