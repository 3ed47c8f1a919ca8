// Taking the driver down with requests, files and callers in every state.
#include <thread>

#include "tests/host/host_fixture.h"
#include "tests/support/process_state.h"
#include "tests/support/repetitions.h"

namespace zelta::host {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class TearDownTest : public HostTest {
 protected:
  void SetUp() override { start(); }
};

TEST_F(TearDownTest, WaitingRequestsAreCompletedByTheDriversShutdown) {
  const auto operation = submitWaiting();
  host_->tearDown();
  ASSERT_TRUE(operation->completed());
  EXPECT_EQ(operation->result().status, kCancelledStatus);
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(TearDownTest, RequestsThatTheDriverKeepsAreCompletedByTheHost) {
  int completions = 0;
  const auto operation =
      file_->submit(fake::kWaitForEver, {}, 8, [&](const IoResult&) { ++completions; });
  ASSERT_TRUE(operation->waitDispatched(kLong));
  host_->tearDown();
  ASSERT_TRUE(operation->completed());
  EXPECT_EQ(operation->result().status, kDeviceGone);
  EXPECT_EQ(completions, 1);
  // The driver completes it all the same, too late.
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("completed a request twice")));
  EXPECT_TRUE(host_->unload());
}

TEST_F(TearDownTest, FilesAndOperationsOutliveTheDevice) {
  const auto waiting = submitWaiting();
  host_->tearDown();
  EXPECT_EQ(control(fake::kEcho).status, kDeviceGone);
  int completions = 0;
  const auto late = file_->submit(fake::kEcho, {}, 0, [&](const IoResult&) { ++completions; });
  EXPECT_TRUE(late->completed());
  EXPECT_TRUE(late->waitDispatched(0ms));
  EXPECT_EQ(completions, 1);
  waiting->cancel();
  late->cancel();
  EXPECT_TRUE(host_->unload());
  host_.reset();
  EXPECT_EQ(control(fake::kEcho).status, kDeviceGone);
  waiting->cancel();
}

TEST_F(TearDownTest, RunningDispatchIsWaitedForAndWhatIsNotBegunIsRefused) {
  HostOptions three = options();
  three.maximumDispatchThreads = 3;
  host_ = DriverHost::load(FAKE_DRIVER, three);
  start();
  const auto first = submit(fake::kBlockUntilCancelled);
  const auto second = submit(fake::kBlock);
  control(fake::kBlocked, numbers({2}));
  const auto third = submit(fake::kBlock);
  const auto unbegun = submit(fake::kEcho);
  std::thread owner([this] { host_->tearDown(); });
  ASSERT_TRUE(unbegun->wait(kLong));
  EXPECT_EQ(unbegun->result().status, kDeviceGone);
  EXPECT_FALSE(second->completed());
  EXPECT_EQ(trace().back(), "OnD0Entry");
  first->cancel();
  owner.join();
  EXPECT_EQ(first->result().status, kCancelledStatus);
  EXPECT_EQ(second->result().status, framework::kOk);
  EXPECT_TRUE(third->completed());
  EXPECT_THAT(errors(), IsEmpty());
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
          if (caller == 2) operation->waitDispatched(kLong);
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
    submitWaiting();
    host_->tearDown();
    ASSERT_TRUE(host_->unload());
    ASSERT_FALSE(test::isMapped(FAKE_DRIVER));
    ASSERT_EQ(test::threadCount(), threads);
  }
  EXPECT_EQ(test::openFiles(), files);
}

}  // namespace
}  // namespace zelta::host
