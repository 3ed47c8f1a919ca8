// Taking the driver down with requests, files and callers in every state.
#include <thread>

#include "tests/host/host_fixture.h"
#include "tests/support/process_state.h"
#include "tests/support/repetitions.h"

namespace zelta::host {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

using TearDownTest = StartedHostTest;

TEST_F(TearDownTest, WaitingRequestsAreCompletedByTheDriversShutdown) {
  const auto operation = submit(fake::kWait);
  host_->tearDown();
  ASSERT_TRUE(operation->completed());
  EXPECT_EQ(operation->result().status, kCancelledStatus);
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(TearDownTest, CancelWhileTheDriverShutsDown_IsLeftToTheDriver) {
  std::shared_ptr<IoOperation> both[2];
  for (auto& each : both) {
    each = file_->submit(fake::kWait, {}, 8, [&both](const IoResult&) {
      for (const auto& other : both) other->cancel();
    });
  }
  host_->tearDown();
  EXPECT_THAT(trace(), Not(Contains("OnCancel")));
  for (const auto& each : both) EXPECT_EQ(each->result().status, kCancelledStatus);
}

TEST_F(TearDownTest, RequestsThatTheDriverKeepsAreCompletedByTheHost) {
  int completions = 0;
  const auto operation =
      file_->submit(fake::kWaitForEver, {}, 8, [&](const IoResult&) { ++completions; });
  host_->tearDown();
  ASSERT_TRUE(operation->completed());
  EXPECT_EQ(operation->result().status, kDeviceGone);
  EXPECT_EQ(completions, 1);
  // The driver still completes it, too late.
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("completed a request twice")));
  EXPECT_TRUE(host_->unload());
}

TEST_F(TearDownTest, FilesAndOperationsOutliveTheDevice) {
  const auto waiting = submit(fake::kWait);
  host_->tearDown();
  EXPECT_EQ(control(fake::kEcho).status, kDeviceGone);
  int completions = 0;
  const auto late = file_->submit(fake::kEcho, {}, 0, [&](const IoResult&) { ++completions; });
  EXPECT_TRUE(late->completed());
  EXPECT_EQ(completions, 1);
  waiting->cancel();
  late->cancel();
  EXPECT_TRUE(host_->unload());
  host_.reset();
  EXPECT_EQ(control(fake::kEcho).status, kDeviceGone);
  waiting->cancel();
}

// The driver ends its running callbacks itself when it leaves the working state.
TEST_F(TearDownTest, RunningCallbackIsWaitedForOnceTheDriverHasLeftItsWorkingState) {
  std::promise<void> ending;
  std::promise<void> goOn;
  std::thread caller([&] {
    file_->submit(fake::kBlock, {}, 0, [&](const IoResult&) {
      ending.set_value();
      goOn.get_future().wait();
    });
  });
  control(fake::kBlocked, numbers({1}));
  auto down = std::async(std::launch::async, [this] { host_->tearDown(); });
  ending.get_future().wait();
  EXPECT_EQ(down.wait_for(50ms), std::future_status::timeout);
  EXPECT_EQ(trace().back(), "OnD0Exit");
  EXPECT_EQ(control(fake::kEcho).status, kDeviceGone);
  goOn.set_value();
  down.get();
  caller.join();
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(TearDownTest, CallerWhoWaitsForARequestThatTheDriverKeepsIsReleased) {
  auto kept = controlOnThread(fake::kWaitForEver);
  while (counter(fake::kKeptForEver) == 0) std::this_thread::yield();
  host_->tearDown();
  EXPECT_EQ(kept.get().status, kDeviceGone);
}

TEST_F(TearDownTest, CallersOnAllSidesSurviveTearDownAtAnyMoment) {
  for (int round = 0; round < test::repetitions(30); ++round) {
    if (round > 0) start();
    std::atomic<bool> stop{false};
    std::atomic<int> submitted{0};
    std::atomic<int> completed{0};
    std::atomic<int> unexpected{0};
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 3; ++caller) {
      callers.emplace_back([&, caller, file = file_] {
        while (!stop) {
          ++submitted;
          const auto operation =
              file->submit(caller == 0 ? fake::kEcho : fake::kWait, {}, 4, [&](const IoResult& r) {
                ++completed;
                if (r.status != framework::kOk && r.status != kDeviceGone &&
                    r.status != kCancelledStatus) {
                  ++unexpected;
                }
              });
          if (caller == 1) operation->cancel();
          if (caller == 2) file->control(fake::kWait, {}, 0, 1ms);
          if (const auto other = host_->open(L"dev0")) other->control(fake::kEcho, {}, 0, kLong);
        }
      });
    }
    control(fake::kEcho);
    host_->tearDown();
    stop = true;
    for (std::thread& caller : callers) caller.join();
    EXPECT_EQ(submitted, completed);
    EXPECT_EQ(unexpected, 0);
  }
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(TearDownTest, NothingIsLeftBehind) {
  host_.reset();
  const std::size_t threads = test::threadCount();
  const auto files = test::openFiles();
  for (int round = 0; round < test::repetitions(50); ++round) {
    host_ = DriverHost::load(FAKE_DRIVER, options());
    start();
    submit(fake::kWait);
    host_->tearDown();
    ASSERT_TRUE(host_->unload());
    ASSERT_FALSE(test::isMapped(FAKE_DRIVER));
    ASSERT_LE(test::threadsLeft(threads), threads);
  }
  EXPECT_EQ(test::openFiles(), files);
}

}  // namespace
}  // namespace zelta::host
