// Several requests at the same time.
#include <thread>

#include "tests/host/host_fixture.h"
#include "tests/support/process_state.h"
#include "tests/support/repetitions.h"

namespace zelta::host {
namespace {

using ::testing::IsEmpty;

using ConcurrencyTest = StartedHostTest;

TEST_F(ConcurrencyTest, CallbacksOfBlockedCallersDoNotHoldUpOthers) {
  std::vector<std::future<IoResult>> blocked;
  for (int i = 0; i < 20; ++i) blocked.push_back(controlOnThread(fake::kBlock));
  control(fake::kBlocked, numbers({20}));
  EXPECT_EQ(control(fake::kEcho, {3}).output, std::vector<std::uint8_t>{3});
  control(fake::kUnblock);
  for (auto& caller : blocked) EXPECT_EQ(caller.get().status, framework::kOk);
  EXPECT_GE(counter(fake::kMostAtOnce), 21u);
}

TEST_F(ConcurrencyTest, ControlIsDispatchedOnItsCallersThread) {
  const std::size_t threads = test::threadCount();
  for (int i = 0; i < 20; ++i) control(fake::kEcho, {1});
  file_->submit(fake::kWait, {}, 0, nullptr)->cancel();
  EXPECT_EQ(test::threadCount(), threads);
}

// Calls the driver like the operating system's own host with the device-level locking constraint.
class SerialisedCallbacksTest : public HostTest, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    const bool byEnvironment = GetParam();
    const test::ScopedVariable variable("ZELTA_HOST_SERIALISE", byEnvironment ? "1" : "0");
    HostOptions serialising = options();
    serialising.serialiseCallbacks = !byEnvironment;
    host_ = DriverHost::load(FAKE_DRIVER, serialising);
    start();
  }
};

TEST_P(SerialisedCallbacksTest, DispatchAndCancelCallbacksComeOneAtATime) {
  std::vector<std::thread> callers;
  for (int caller = 0; caller < 2; ++caller) {
    callers.emplace_back([this] {
      for (int i = 0; i < test::repetitions(2000); ++i) control(fake::kEcho, {1});
    });
    callers.emplace_back([this] {
      for (int i = 0; i < test::repetitions(2000); ++i) {
        const auto operation = submit(fake::kWait);
        operation->cancel();
        EXPECT_TRUE(operation->completed());
      }
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(counter(fake::kMostAtOnce), 1u);
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_P(SerialisedCallbacksTest, CallbackThatWaitsForAnother_WaitsUntilTheTearDown) {
  auto waiting = controlOnThread(fake::kBlocked, numbers({1}));
  auto other = controlOnThread(fake::kBlock);
  EXPECT_EQ(waiting.wait_for(100ms), std::future_status::timeout);
  host_->tearDown();
  waiting.get();
  other.get();
}

TEST_P(SerialisedCallbacksTest, CallbackWhileMarking_NeedsNoTurnOfItsOwn) {
  const auto operation = submit(fake::kKeepUnmarked);
  operation->cancel();
  control(fake::kMarkKept);
  ASSERT_TRUE(operation->completed());
  EXPECT_EQ(operation->result().status, kCancelledStatus);
}

TEST_P(SerialisedCallbacksTest, TearDown_EndsTheCallbackThatHoldsUpTheOthers) {
  const auto waiting = submit(fake::kWait);
  std::vector<std::future<IoResult>> blocked;
  for (int i = 0; i < 3; ++i) blocked.push_back(controlOnThread(fake::kBlock));
  std::thread canceller([&] { waiting->cancel(); });
  host_->tearDown();
  canceller.join();
  for (auto& caller : blocked) caller.get();
  EXPECT_EQ(waiting->result().status, kCancelledStatus);
}

INSTANTIATE_TEST_SUITE_P(AskedFor, SerialisedCallbacksTest, testing::Bool(), [](const auto& each) {
  return each.param ? "InTheEnvironment" : "InTheOptions";
});

}  // namespace
}  // namespace zelta::host
