#include "agent_link/pipe_calls.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "tests/agent_link/link_test.h"
#include "tests/support/gap_pipes.h"
#include "tests/support/scripted_pipes.h"

namespace zelta::test {
namespace {

constexpr std::uint32_t kAborted = platform::error::kOperationAborted;
constexpr std::uint32_t kNotFound = platform::error::kNotFound;

class PipeCallsTest : public ::testing::Test {
 protected:
  PipeCallsTest() : pipe_(gaps_.create("pipe", {})) { calls_.letIn(); }

  // A call that needs no pipe: whether it was run, and with what last error.
  bool runs(PipeCalls::Series series) {
    platform::setLastError(0);
    bool run = false;
    const bool result = calls_.run(series, [&] { return run = true; });
    EXPECT_EQ(result, run);
    EXPECT_EQ(platform::lastError(), run ? 0u : kAborted);
    return run;
  }

  std::uint32_t readOnce(PipeCalls::Series series) {
    char byte = 0;
    const bool read = calls_.run(series, [&] { return gaps_.read(pipe_, &byte, 1); });
    return read ? 0 : platform::lastError();
  }

  std::uint32_t connectOnce() {
    const bool connected = calls_.run(calls_.beginConnect(), [&] { return gaps_.connect(pipe_); });
    return connected ? 0 : platform::lastError();
  }

  ScriptedPipes pipes_;
  GapPipes gaps_{pipes_};
  ScopedPipes scoped_{gaps_};
  PipeCalls calls_;
  const platform::PipeHandleValue pipe_;
  const PipeHandle handle_{pipe_};
};

TEST_F(PipeCallsTest, TheCallsResultAndLastErrorComeBack) {
  const PipeCalls::Series series = calls_.beginSeries();
  EXPECT_TRUE(calls_.run(series, [] { return true; }));
  EXPECT_FALSE(calls_.run(series, [] {
    platform::setLastError(109);
    return false;
  }));
  EXPECT_EQ(platform::lastError(), 109u);
}

TEST_F(PipeCallsTest, ExchangesAreRefusedUntilAClientWasLetIn) {
  PipeCalls calls;
  bool run = false;
  const PipeCalls::Series before = calls.beginSeries();
  EXPECT_FALSE(calls.run(before, [&] { return run = true; }));
  EXPECT_EQ(platform::lastError(), platform::error::kPipeListening);
  EXPECT_FALSE(run);
  EXPECT_TRUE(calls.run(calls.beginConnect(), [] { return true; }));
  calls.letIn();
  EXPECT_TRUE(calls.run(before, [&] { return run = true; }));
  EXPECT_TRUE(run);
}

TEST_F(PipeCallsTest, AClosedPipeHasNoClientUntilTheNextWasLetIn) {
  calls_.close(pipe_);
  calls_.reopen();
  EXPECT_FALSE(calls_.run(calls_.beginSeries(), [] { return true; }));
  EXPECT_EQ(platform::lastError(), platform::error::kPipeListening);
  calls_.letIn();
  EXPECT_TRUE(runs(calls_.beginSeries()));
}

TEST_F(PipeCallsTest, AnEndIsReportedBeforeThatNoClientWasLetIn) {
  PipeCalls ended;
  ended.endExchanges(handle_);
  EXPECT_FALSE(ended.run(ended.beginSeries(), [] { return true; }));
  EXPECT_EQ(platform::lastError(), kAborted);
  PipeCalls stopped;
  stopped.stop();
  EXPECT_FALSE(stopped.run(stopped.beginSeries(), [] { return true; }));
  EXPECT_EQ(platform::lastError(), kAborted);
}

TEST_F(PipeCallsTest, EndingWithNothingUnderWayCancelsOnceAndSaysSo) {
  EXPECT_FALSE(calls_.endSeries(pipe_));
  EXPECT_EQ(platform::lastError(), kNotFound);
  EXPECT_EQ(pipes_.calls(PipeCallKind::Cancel).size(), 1u);
}

TEST_F(PipeCallsTest, AnEndedSeriesIsRefusedAndTheNextIsNot) {
  const PipeCalls::Series ended = calls_.beginSeries();
  calls_.endSeries(pipe_);
  EXPECT_FALSE(runs(ended));
  EXPECT_TRUE(runs(calls_.beginSeries()));
}

TEST_F(PipeCallsTest, ABlockedCallIsEndedByTheFirstCancel) {
  const PipeCalls::Series series = calls_.beginSeries();
  auto read = std::async(std::launch::async, [&] { return readOnce(series); });
  ASSERT_TRUE(pipes_.waitUntilBlocked("pipe"));
  EXPECT_TRUE(calls_.endSeries(pipe_));
  EXPECT_EQ(read.get(), kAborted);
}

TEST_F(PipeCallsTest, ACallInTheGapBeforeItBlocksIsEndedByALaterCancel) {
  const PipeCalls::Series series = calls_.beginSeries();
  gaps_.holdNext(GapPipes::Call::Read, "pipe");
  auto read = std::async(std::launch::async, [&] { return readOnce(series); });
  ASSERT_TRUE(gaps_.waitUntilHeld());
  auto end = std::async(std::launch::async, [&] {
    const bool cancelled = calls_.endSeries(pipe_);
    return std::make_pair(cancelled, platform::lastError());
  });
  ASSERT_TRUE(gaps_.waitForMissedCancels("pipe", 2));
  gaps_.letGo();
  EXPECT_EQ(read.get(), kAborted);
  // What is reported is the first cancel's.
  EXPECT_EQ(end.get(), std::make_pair(false, kNotFound));
}

TEST_F(PipeCallsTest, EndingDoesNotWaitForCallsOfTheNextSeries) {
  const PipeCalls::Series first = calls_.beginSeries();
  gaps_.holdNext(GapPipes::Call::Read, "pipe");
  auto oldRead = std::async(std::launch::async, [&] { return readOnce(first); });
  ASSERT_TRUE(gaps_.waitUntilHeld());
  auto end = std::async(std::launch::async, [&] { return calls_.endSeries(pipe_); });
  ASSERT_TRUE(gaps_.waitForMissedCancels("pipe", 1));
  // A call of the next series is in flight until the end, outside the pipe, where no cancel
  // reaches it.
  std::promise<void> finish;
  auto next = std::async(std::launch::async, [&] {
    return calls_.run(calls_.beginSeries(), [&] {
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

TEST_F(PipeCallsTest, AClosedPipeRefusesEverySeriesUntilItIsReopened) {
  calls_.close(pipe_);
  EXPECT_FALSE(runs(calls_.beginSeries()));
  calls_.reopen();
  calls_.letIn();
  EXPECT_TRUE(runs(calls_.beginSeries()));
}

TEST_F(PipeCallsTest, AStoppedPipeIsNotReopened) {
  calls_.stop();
  EXPECT_FALSE(runs(calls_.beginSeries()));
  calls_.close(pipe_);
  calls_.reopen();
  EXPECT_FALSE(runs(calls_.beginSeries()));
}

TEST_F(PipeCallsTest, StoppingAloneEndsNoCallAndClosingThenDoes) {
  const PipeCalls::Series series = calls_.beginSeries();
  auto read = std::async(std::launch::async, [&] { return readOnce(series); });
  ASSERT_TRUE(pipes_.waitUntilBlocked("pipe"));
  calls_.stop();
  EXPECT_TRUE(pipes_.calls(PipeCallKind::Cancel).empty());
  EXPECT_TRUE(calls_.close(pipe_));
  EXPECT_EQ(read.get(), kAborted);
}

TEST_F(PipeCallsTest, EndOfExchangesWithNoneInFlightCancelsNothing) {
  calls_.endExchanges(handle_);
  EXPECT_TRUE(pipes_.calls(PipeCallKind::Cancel).empty());
}

TEST_F(PipeCallsTest, EndOfExchangesRefusesTheOnesBegunBeforeAndTheLaterOnesForGood) {
  const PipeCalls::Series before = calls_.beginSeries();
  calls_.endExchanges(handle_);
  EXPECT_FALSE(runs(before));
  EXPECT_FALSE(runs(calls_.beginSeries()));
  calls_.close(pipe_);
  calls_.reopen();
  EXPECT_FALSE(runs(calls_.beginSeries()));
  EXPECT_TRUE(runs(calls_.beginConnect()));
}

TEST_F(PipeCallsTest, EndOfExchangesLeavesAWaitForAClientAlone) {
  pipes_.holdConnect("pipe");
  auto connect = std::async(std::launch::async, [&] { return connectOnce(); });
  ASSERT_TRUE(pipes_.waitUntilBlocked("pipe"));
  calls_.endExchanges(handle_);
  EXPECT_TRUE(pipes_.calls(PipeCallKind::Cancel).empty());
  EXPECT_TRUE(calls_.endSeries(pipe_));
  EXPECT_EQ(connect.get(), kAborted);
}

TEST_F(PipeCallsTest, EndOfExchangesEndsABlockedCall) {
  const PipeCalls::Series series = calls_.beginSeries();
  auto read = std::async(std::launch::async, [&] { return readOnce(series); });
  ASSERT_TRUE(pipes_.waitUntilBlocked("pipe"));
  calls_.endExchanges(handle_);
  EXPECT_EQ(read.get(), kAborted);
}

TEST_F(PipeCallsTest, EndOfExchangesEndsACallInTheGapBeforeItBlocks) {
  const PipeCalls::Series series = calls_.beginSeries();
  gaps_.holdNext(GapPipes::Call::Read, "pipe");
  auto read = std::async(std::launch::async, [&] { return readOnce(series); });
  ASSERT_TRUE(gaps_.waitUntilHeld());
  auto end = std::async(std::launch::async, [&] { calls_.endExchanges(handle_); });
  ASSERT_TRUE(gaps_.waitForMissedCancels("pipe", 2));
  gaps_.letGo();
  EXPECT_EQ(read.get(), kAborted);
  end.get();
}

// A time-out has ended the series, and its call is still on its way into the pipe.
TEST_F(PipeCallsTest, EndOfExchangesWaitsForCallsOfEndedSeriesToo) {
  const PipeCalls::Series series = calls_.beginSeries();
  gaps_.holdNext(GapPipes::Call::Read, "pipe");
  std::atomic<bool> left{false};
  auto read = std::async(std::launch::async, [&] {
    return calls_.run(series, [&] {
      char byte = 0;
      const bool result = gaps_.read(pipe_, &byte, 1);
      left = true;
      return result;
    });
  });
  ASSERT_TRUE(gaps_.waitUntilHeld());
  auto timeOut = std::async(std::launch::async, [&] { return calls_.endSeries(pipe_); });
  ASSERT_TRUE(gaps_.waitForMissedCancels("pipe", 1));
  auto end = std::async(std::launch::async, [&] {
    calls_.endExchanges(handle_);
    EXPECT_TRUE(left);
  });
  gaps_.letGo();
  EXPECT_FALSE(read.get());
  EXPECT_FALSE(timeOut.get());
  end.get();
}

TEST_F(PipeCallsTest, ACallThatThrowsIsNoLongerInFlight) {
  const PipeCalls::Series series = calls_.beginSeries();
  EXPECT_THROW(calls_.run(series, []() -> bool { throw std::bad_alloc(); }), std::bad_alloc);
  calls_.endSeries(pipe_);
  EXPECT_EQ(pipes_.calls(PipeCallKind::Cancel).size(), 1u);
}

}  // namespace
}  // namespace zelta::test
