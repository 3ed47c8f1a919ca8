// Cancellation: exactly one of the driver's release and its cancel callback completes a request.
#include <thread>

#include "tests/host/host_fixture.h"
#include "tests/support/repetitions.h"

namespace zelta::host {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using CancelTest = StartedHostTest;

TEST_F(CancelTest, MarkedRequestIsHandedToTheCallbackOnceOnTheCancellingThread) {
  const auto operation = submit(fake::kWait);
  operation->cancel();
  ASSERT_TRUE(operation->completed());
  EXPECT_EQ(operation->result().status, kCancelledStatus);
  operation->cancel();
  EXPECT_EQ(counter(fake::kCancels), 1u) << "the second cancel was handed on";
  EXPECT_EQ(counter(fake::kCancelsWhileMarking), 0u);
  EXPECT_EQ(counter(fake::kUnmarkedInCancel), 0u);
}

TEST_F(CancelTest, CompletedRequestIsLeftAlone) {
  const auto operation = submit(fake::kEcho, {1});
  ASSERT_TRUE(operation->wait(kLong));
  operation->cancel();
  EXPECT_EQ(operation->result().status, framework::kOk);
  EXPECT_EQ(counter(fake::kCancels), 0u);
}

TEST_F(CancelTest, RequestCancelledBeforeItIsMarkedIsCancelledByMarkingIt) {
  const auto operation = submit(fake::kKeepUnmarked);
  operation->cancel();
  EXPECT_FALSE(operation->completed());
  control(fake::kMarkKept);
  ASSERT_TRUE(operation->completed());
  EXPECT_EQ(operation->result().status, kCancelledStatus);
  EXPECT_EQ(counter(fake::kCancelsWhileMarking), 1u);
  EXPECT_EQ(counter(fake::kUnmarkedInCancel), 0u);
  EXPECT_THAT(releaseWaiting(), ElementsAre(0u, 0u));
}

TEST_F(CancelTest, RequestThatIsNeverMarkedIsCompletedByTheDriver) {
  const auto operation = submit(fake::kKeepUnmarked);
  operation->cancel();
  control(fake::kCompleteKept);
  ASSERT_TRUE(operation->completed());
  EXPECT_EQ(operation->result().status, framework::kOk);
  EXPECT_EQ(counter(fake::kCancels), 0u);
}

TEST_F(CancelTest, SecondMarkIsReportedWithNothingOfTheRequestsHeld) {
  HostOptions releasing;
  releasing.driverError = [this](const std::string& text) {
    // Needs any lock that would be held, so it runs on its own thread.
    std::thread([this] { EXPECT_THAT(releaseWaiting(), ElementsAre(1u, 0u)); }).join();
    errors_.add(text);
  };
  host_ = DriverHost::load(FAKE_DRIVER, releasing);
  start();
  const auto operation = submit(fake::kMarkTwice);
  ASSERT_TRUE(operation->completed());
  EXPECT_EQ(operation->result().status, framework::kOk);
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("marked a request cancelable")));
}

TEST_F(CancelTest, ReleaseRacingWithCancelCompletesEachRequestOnce) {
  constexpr int kRounds = test::repetitions(2000);
  std::uint32_t released = 0;
  for (int round = 0; round < kRounds; ++round) {
    std::atomic<int> completions{0};
    const auto operation =
        file_->submit(fake::kWait, {}, 0, [&](const IoResult&) { ++completions; });
    std::thread canceller([&] { operation->cancel(); });
    const auto counts = releaseWaiting();
    ASSERT_EQ(counts.size(), 2u);
    released += counts[0];
    canceller.join();
    ASSERT_TRUE(operation->wait(kLong));
    EXPECT_EQ(completions, 1);
  }
  EXPECT_EQ(released + counter(fake::kCancels), static_cast<std::uint32_t>(kRounds));
  EXPECT_THAT(errors(), IsEmpty());
}

}  // namespace
}  // namespace zelta::host
