#include "agent_link/cancelable_pipe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "platform/process/error.h"
#include "platform/process/ports.h"
#include "tests/agent_link/link_test.h"
#include "tests/doubles/pipes/gap_pipes.h"
#include "tests/doubles/pipes/scripted_pipes.h"

namespace zelta::test {
namespace {

using Epoch = CancelablePipe::Epoch;

constexpr std::uint32_t kAborted = platform::error::kOperationAborted;
constexpr std::uint32_t kNotFound = platform::error::kNotFound;
constexpr std::uint32_t kListening = platform::error::kPipeListening;

class CancelablePipeTest : public ::testing::Test {
 protected:
  CancelablePipeTest() { pipe_.hold(PipeHandle(gaps_.create("pipe", {}))); }

  void SetUp() override { ASSERT_EQ(pipe_.connect(), 0u); }

  // A call that needs no pipe: 0, or the error that it was refused with.
  std::uint32_t refusal(Epoch epoch) {
    bool run = false;
    const bool result = pipe_.run(epoch, [&] { return run = true; });
    EXPECT_EQ(result, run);
    return run ? 0 : platform::lastError();
  }

  std::uint32_t readOnce(Epoch epoch) {
    char byte = 0;
    const bool read = pipe_.run(epoch, [&] { return gaps_.read(pipe_.handle(), &byte, 1); });
    return read ? 0 : platform::lastError();
  }

  std::future<std::uint32_t> beginRead() {
    return std::async(std::launch::async,
                      [this, epoch = pipe_.epoch()] { return readOnce(epoch); });
  }

  // Held just before it blocks.
  std::future<std::uint32_t> beginReadInGap() {
    gaps_.holdNext(GapPipes::Call::kRead, "pipe");
    auto read = beginRead();
    EXPECT_TRUE(gaps_.waitUntilHeld());
    return read;
  }

  std::future<std::uint32_t> beginConnect() {
    scripted_.holdConnect("pipe");
    auto connect = std::async(std::launch::async, [this] { return pipe_.connect(); });
    EXPECT_TRUE(scripted_.waitUntilBlocked("pipe"));
    return connect;
  }

  std::size_t cancels() const { return scripted_.calls(PipeCallKind::kCancel).size(); }
  std::size_t disconnects() const { return scripted_.calls(PipeCallKind::kDisconnect).size(); }

  LogCapture log_;
  ScriptedPipes scripted_;
  GapPipes gaps_{scripted_};
  ScopedPipes scoped_{gaps_};
  CancelablePipe pipe_{"test", "pipe"};
};

TEST_F(CancelablePipeTest, ExchangesAreRefusedUntilAClientWasAccepted) {
  for (const std::uint32_t accepted : {0u, 535u, 997u}) {
    CancelablePipe pipe("test", "other");
    scripted_.fail(PipeCallKind::kConnect, 31, 1, 1, "other");
    if (accepted != 0) scripted_.fail(PipeCallKind::kConnect, accepted, 2, 1, "other");
    pipe.hold(PipeHandle(gaps_.create("other", {})));
    const Epoch before = pipe.epoch();
    const auto runs = [&] { return pipe.run(before, [] { return true; }); };
    EXPECT_FALSE(runs());
    EXPECT_EQ(platform::lastError(), kListening);
    (void)pipe.connect();
    (void)pipe.connect();
    EXPECT_TRUE(runs());
  }
}

TEST_F(CancelablePipeTest, AfterADisconnectThereIsNoClientUntilTheNextIsAccepted) {
  pipe_.disconnect();
  EXPECT_EQ(refusal(pipe_.epoch()), kListening);
  EXPECT_EQ(pipe_.connect(), 0u);
  EXPECT_EQ(refusal(pipe_.epoch()), 0u);
}

TEST_F(CancelablePipeTest, ADroppedClientIsGoneUntilTheNextIsAccepted) {
  pipe_.dropClient(pipe_.epoch());
  EXPECT_EQ(disconnects(), 1u);
  EXPECT_EQ(refusal(pipe_.epoch()), platform::error::kBrokenPipe);
  (void)pipe_.cancelCalls();
  EXPECT_EQ(refusal(pipe_.epoch()), platform::error::kBrokenPipe);
  EXPECT_EQ(pipe_.connect(), 0u);
  EXPECT_EQ(refusal(pipe_.epoch()), 0u);
}

TEST_F(CancelablePipeTest, DroppingTheClientOfAnEndedEpochLeavesTheNextAlone) {
  const Epoch ended = pipe_.epoch();
  pipe_.disconnect();
  EXPECT_EQ(pipe_.connect(), 0u);
  pipe_.dropClient(ended);
  EXPECT_EQ(disconnects(), 1u);
  EXPECT_EQ(refusal(pipe_.epoch()), 0u);
}

TEST_F(CancelablePipeTest, AnEndIsReportedBeforeThatNoClientWasAccepted) {
  CancelablePipe ended("test", "pipe");
  ended.endExchanges();
  EXPECT_FALSE(ended.run(ended.epoch(), [] { return true; }));
  EXPECT_EQ(platform::lastError(), kAborted);
  CancelablePipe stopped("test", "pipe");
  stopped.stop();
  EXPECT_FALSE(stopped.run(stopped.epoch(), [] { return true; }));
  EXPECT_EQ(platform::lastError(), kAborted);
}

TEST_F(CancelablePipeTest, CancellingWithNothingUnderWayCancelsOnceAndSaysSo) {
  EXPECT_FALSE(pipe_.cancelCalls());
  EXPECT_EQ(platform::lastError(), kNotFound);
  EXPECT_EQ(cancels(), 1u);
}

TEST_F(CancelablePipeTest, AnEndedEpochIsRefusedAndTheNextIsNot) {
  const Epoch ended = pipe_.epoch();
  (void)pipe_.cancelCalls();
  EXPECT_EQ(refusal(ended), kAborted);
  EXPECT_EQ(refusal(pipe_.epoch()), 0u);
}

TEST_F(CancelablePipeTest, ABlockedCallIsEndedByTheFirstCancel) {
  auto read = beginRead();
  ASSERT_TRUE(scripted_.waitUntilBlocked("pipe"));
  EXPECT_TRUE(pipe_.cancelCalls());
  EXPECT_EQ(read.get(), kAborted);
}

TEST_F(CancelablePipeTest, ACallInTheGapBeforeItBlocksIsEndedByALaterCancel) {
  auto read = beginReadInGap();
  auto end = std::async(std::launch::async, [&] {
    const bool cancelled = pipe_.cancelCalls();
    return std::make_pair(cancelled, platform::lastError());
  });
  ASSERT_TRUE(gaps_.waitForMissedCancels("pipe", 2));
  gaps_.letGo();
  EXPECT_EQ(read.get(), kAborted);
  // The reported error is the first cancel's.
  EXPECT_EQ(end.get(), std::make_pair(false, kNotFound));
}

TEST_F(CancelablePipeTest, CancellingDoesNotWaitForCallsOfTheNextEpoch) {
  auto oldRead = beginReadInGap();
  auto end = std::async(std::launch::async, [&] { return pipe_.cancelCalls(); });
  ASSERT_TRUE(gaps_.waitForMissedCancels("pipe", 1));
  // A call of the next epoch is in flight until the end, outside the pipe, so that no
  // cancel reaches it.
  std::promise<void> finish;
  auto next = std::async(std::launch::async, [&] {
    return pipe_.run(pipe_.epoch(), [&] {
      gaps_.letGo();
      finish.get_future().wait();
      return true;
    });
  });
  EXPECT_EQ(oldRead.get(), kAborted);
  EXPECT_FALSE(end.get());
  finish.set_value();
  EXPECT_TRUE(next.get());
}

TEST_F(CancelablePipeTest, DisconnectEndsCallsThenDropsTheClient) {
  auto read = beginRead();
  ASSERT_TRUE(scripted_.waitUntilBlocked("pipe"));
  const CancelablePipe::DisconnectErrors errors = pipe_.disconnect();
  EXPECT_EQ(errors.cancel, 0u);
  EXPECT_EQ(errors.disconnect, 0u);
  EXPECT_EQ(read.get(), kAborted);
  EXPECT_EQ(disconnects(), 1u);
}

TEST_F(CancelablePipeTest, DisconnectReportsWhatEachStepFailedWith) {
  scripted_.fail(PipeCallKind::kDisconnect, 233);
  const CancelablePipe::DisconnectErrors errors = pipe_.disconnect();
  EXPECT_EQ(errors.cancel, kNotFound);
  EXPECT_EQ(errors.disconnect, 233u);
}

TEST_F(CancelablePipeTest, AStoppedPipeStaysSo) {
  pipe_.stop();
  EXPECT_EQ(refusal(pipe_.epoch()), kAborted);
  pipe_.disconnect();
  EXPECT_EQ(refusal(pipe_.epoch()), kAborted);
  EXPECT_EQ(pipe_.connect(), kAborted);
}

TEST_F(CancelablePipeTest, StoppingAloneEndsNoCallAndDisconnectingThenDoes) {
  auto read = beginRead();
  ASSERT_TRUE(scripted_.waitUntilBlocked("pipe"));
  pipe_.stop();
  EXPECT_EQ(cancels(), 0u);
  EXPECT_EQ(pipe_.disconnect().cancel, 0u);
  EXPECT_EQ(read.get(), kAborted);
}

TEST_F(CancelablePipeTest, EndOfExchangesRefusesTheOnesBegunBeforeAndTheLaterOnesForGood) {
  const Epoch before = pipe_.epoch();
  pipe_.endExchanges();
  EXPECT_EQ(refusal(before), kAborted);
  EXPECT_EQ(refusal(pipe_.epoch()), kAborted);
  pipe_.disconnect();
  EXPECT_EQ(pipe_.connect(), 0u) << "a client is still waited for";
  EXPECT_EQ(refusal(pipe_.epoch()), kAborted);
}

TEST_F(CancelablePipeTest, EndOfExchangesLeavesAWaitForAClientAlone) {
  auto connect = beginConnect();
  pipe_.endExchanges();
  EXPECT_EQ(cancels(), 0u);
  EXPECT_TRUE(pipe_.cancelCalls());
  EXPECT_EQ(connect.get(), kAborted);
}

TEST_F(CancelablePipeTest, EndOfExchangesEndsACallInTheGapBeforeItBlocks) {
  auto read = beginReadInGap();
  auto end = std::async(std::launch::async, [&] { pipe_.endExchanges(); });
  ASSERT_TRUE(gaps_.waitForMissedCancels("pipe", 2));
  gaps_.letGo();
  EXPECT_EQ(read.get(), kAborted);
  end.get();
}

// A time-out has ended the epoch, and its call is still on its way into the pipe.
TEST_F(CancelablePipeTest, EndOfExchangesWaitsForCallsOfEndedEpochsToo) {
  const Epoch epoch = pipe_.epoch();
  gaps_.holdNext(GapPipes::Call::kRead, "pipe");
  std::atomic<bool> left{false};
  auto read = std::async(std::launch::async, [&] {
    return pipe_.run(epoch, [&] {
      char byte = 0;
      const bool result = gaps_.read(pipe_.handle(), &byte, 1);
      left = true;
      return result;
    });
  });
  ASSERT_TRUE(gaps_.waitUntilHeld());
  auto timeOut = std::async(std::launch::async, [&] { return pipe_.cancelCalls(); });
  ASSERT_TRUE(gaps_.waitForMissedCancels("pipe", 1));
  auto end = std::async(std::launch::async, [&] {
    pipe_.endExchanges();
    EXPECT_TRUE(left);
  });
  while (refusal(pipe_.epoch()) != kAborted) std::this_thread::yield();  // until it is inside
  gaps_.letGo();
  EXPECT_FALSE(read.get());
  EXPECT_FALSE(timeOut.get());
  end.get();
}

TEST_F(CancelablePipeTest, ACallThatThrowsIsNoLongerInFlight) {
  EXPECT_THROW(pipe_.run(pipe_.epoch(), []() -> bool { throw std::bad_alloc(); }), std::bad_alloc);
  (void)pipe_.cancelCalls();
  EXPECT_EQ(cancels(), 1u);
}

// A call that no cancel reaches, until the test lets it go.
class CallThatNeverReturns : public CancelablePipeTest {
 protected:
  void SetUp() override {
    CancelablePipeTest::SetUp();
    read_ = beginReadInGap();
  }

  // Ends it by the bytes that the client would have sent.
  void letReturn() {
    scripted_.feed("pipe", {1});
    gaps_.letGo();
    EXPECT_EQ(read_.get(), 0u);
  }

  void expectGivenUp() {
    EXPECT_EQ(log_.records(),
              std::vector<LogRecord>{error(kNoError,
                                           "Gave up cancelling IO on the test named pipe: 1 calls "
                                           "have not returned")});
    log_.clear();
  }

  std::future<std::uint32_t> read_;
};

TEST_F(CallThatNeverReturns, IsGivenUpByTheEndOfExchanges) {
  pipe_.endExchanges();
  expectGivenUp();
  letReturn();
}

// A thread that is to leave its call needs the mutex for that.
TEST_F(CallThatNeverReturns, IsCancelledWithoutThePipesMutex) {
  struct AskingPipes : ForwardingPipes {
    AskingPipes(platform::PipeApi& pipes, CancelablePipe& asked)
        : ForwardingPipes(pipes), pipe(asked) {}
    bool cancel(platform::PipeHandleValue handle) override {
      pipe.epoch();  // blocks if the mutex is held
      return ForwardingPipes::cancel(handle);
    }
    CancelablePipe& pipe;
  };
  AskingPipes asking(gaps_, pipe_);
  const ScopedPipes scoped(asking);
  pipe_.endExchanges();
  expectGivenUp();
  letReturn();
}

// On Windows a disconnect takes as long as the call does. The client must not be served again.
TEST_F(CallThatNeverReturns, KeepsItsClientUntilTheNextConnectWhichWaitsForIt) {
  const CancelablePipe::DisconnectErrors errors = pipe_.disconnect();
  EXPECT_EQ(errors.cancel, kNotFound);
  EXPECT_EQ(errors.disconnect, platform::error::kPipeBusy);
  expectGivenUp();
  EXPECT_EQ(disconnects(), 0u);
  EXPECT_EQ(refusal(pipe_.epoch()), kListening);
  auto connect = std::async(std::launch::async, [this] { return pipe_.connect(); });
  EXPECT_EQ(connect.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  letReturn();
  EXPECT_EQ(connect.get(), 0u);
  const std::vector<PipeCall> calls = scripted_.calls();
  EXPECT_EQ(calls[calls.size() - 2].kind, PipeCallKind::kDisconnect);
  EXPECT_EQ(calls.back().kind, PipeCallKind::kConnect);
}

TEST_F(CallThatNeverReturns, DoesNotKeepAConnectFromBeingStopped) {
  pipe_.disconnect();
  auto connect = std::async(std::launch::async, [this] { return pipe_.connect(); });
  pipe_.stop();
  EXPECT_EQ(connect.get(), kAborted);
  letReturn();
}

}  // namespace
}  // namespace zelta::test
