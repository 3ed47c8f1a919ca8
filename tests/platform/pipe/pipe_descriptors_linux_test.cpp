// The process has no file descriptor left in the middle of an exchange: what was let in is served
// on, because an operation makes none.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "platform/files/scoped_fd_linux.h"
#include "tests/platform/pipe/system_pipe_fixture_linux.h"

namespace zelta::test {

namespace {

#if !defined(__SANITIZE_ADDRESS__)  // the sanitizers look into memory by a pipe that they open

// Takes all descriptors that are left, until the scope ends.
class NoDescriptorLeft {
 public:
  NoDescriptorLeft() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit few{256, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    do {
      taken_.emplace_back(dup(STDERR_FILENO));
    } while (taken_.back());
  }
  ~NoDescriptorLeft() { setrlimit(RLIMIT_NOFILE, &before_); }
  NoDescriptorLeft(const NoDescriptorLeft&) = delete;
  NoDescriptorLeft& operator=(const NoDescriptorLeft&) = delete;

 private:
  rlimit before_{};
  std::vector<platform::ScopedFd> taken_;
};

long timesAsleep() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nvcsw;
}

class PipeDescriptorsTest : public SystemPipeTest {
 protected:
  void SetUp() override { createPipe(); }

  // The threads' own files would need a descriptor: cancelling until it reached the call tells
  // that it is in progress.
  PipeOutcome outcomeOfCancelled(const std::function<bool()>& waiting) {
    PipeCallThread call(waiting);
    while (!call.ended() && !pipes_.cancel(pipe_)) std::this_thread::yield();
    return call.outcome();
  }
};

TEST_F(PipeDescriptorsTest, NoneIsLeft_ExchangesGoOn) {
  constexpr std::uint32_t kRounds = 500;
  PipeClient client = connected();
  const NoDescriptorLeft none;
  std::thread agent([&] {
    for (std::uint32_t round = 0; round < kRounds; ++round) {
      client.readNumber();
      std::this_thread::yield();
      client.writeNumber(client.readNumber().value_or(0));
    }
  });
  const long before = timesAsleep();
  std::uint32_t exchanged = 0;
  for (std::uint32_t round = 0; round < kRounds; ++round) {
    Bytes answer(4);
    if (write({2, 0, 0, 0}).ok && write({7, 0, 0, 0}).ok && flush().ok && read(&answer).ok &&
        answer == Bytes{7, 0, 0, 0}) {
      ++exchanged;
    }
  }
  EXPECT_EQ(exchanged, kRounds);
  EXPECT_GT(timesAsleep(), before) << "none of the operations had to wait: nothing was tried";
  disconnect();  // an agent that still waits ends, too
  agent.join();
}

TEST_F(PipeDescriptorsTest, NoneIsLeft_CallsThatWaitAreCancelled) {
  constexpr int kRounds = 50;
  const PipeOutcome cancelled = pipeError(error::kOperationAborted);
  {
    const NoDescriptorLeft none;
    for (int round = 0; round < kRounds; ++round) {
      ASSERT_EQ(outcomeOfCancelled([this] { return pipes_.connect(pipe_); }), cancelled);
    }
  }
  const PipeClient client = connected();
  const Bytes large(4 * 1024 * 1024);
  const NoDescriptorLeft none;
  for (int round = 0; round < kRounds; ++round) {
    ASSERT_EQ(outcomeOfCancelled([this] { return readByte(); }), cancelled);
  }
  ASSERT_EQ(outcomeOfCancelled([&] {
              return pipes_.write(pipe_, large.data(), static_cast<std::uint32_t>(large.size()));
            }),
            cancelled);
  for (int round = 0; round < kRounds; ++round) {
    ASSERT_EQ(outcomeOfCancelled([this] { return pipes_.flush(pipe_); }), cancelled);
  }
}

TEST_F(PipeDescriptorsTest, NoneIsLeft_DisconnectEndsAReadAndTheNextConnectMakesGood) {
  PipeClient client = connected();
  {
    PipeCallThread reading([this] { return readByte(); });
    reading.waitUntilBlocked();
    const NoDescriptorLeft none;
    EXPECT_EQ(disconnect(), pipeError(error::kTooManyOpenFiles));
    EXPECT_EQ(reading.outcome(), pipeError(error::kBrokenPipe));
    EXPECT_TRUE(client.waitForDrop());
  }
  PipeCallThread connecting([this] { return pipes_.connect(pipe_); });
  EXPECT_TRUE(client.connectWhenListening(kPipeName));
  const std::uint32_t outcome = connecting.outcome().error;
  EXPECT_TRUE(outcome == error::kSuccess || outcome == error::kPipeConnected) << outcome;
}

#endif

}  // namespace

}  // namespace zelta::test
