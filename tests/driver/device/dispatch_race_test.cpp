// Parallel dispatch from the framework's side, with cancellation racing completion and shutdown.
// The framework's double complains if a request is not completed exactly once, or touched after.
#include <atomic>
#include <chrono>
#include <future>

#include "contract/io_controls.h"
#include "diagnostics/traced_lock.h"
#include "tests/driver/device/device_fixture.h"
#include "tests/support/repetitions.h"

namespace zelta {
namespace {

using test::FakeWdfRequest;

class DispatchRace : public test::DeviceFixture {
 protected:
  void SetUp() override { bringUp(); }

  // Completes waiting requests like the agent's events and the reader's shutdown.
  void completeWaiting(CardEvent awaited) {
    const TracedLock lock("test", reader_->waiting().deviceLock(), __LINE__);
    reader_->waiting().completeAll(awaited, status::kCancelled);
  }
};

TEST_F(DispatchRace, ShutdownRacingDispatchAndCancel_CompletesEachRequestOnce) {
  for (int round = 0; round < test::repetitions(300); ++round) {
    takeDown();
    story_.onShutdown = [this] {
      completeWaiting(CardEvent::kRemoved);
      completeWaiting(CardEvent::kInserted);
    };
    bringUp();
    FakeWdfRequest& first = framework_.makeRequest({IOCTL_SMARTCARD_IS_PRESENT, {}, {}});
    FakeWdfRequest& second = framework_.makeRequest({IOCTL_SMARTCARD_IS_PRESENT, {}, {}});
    std::thread canceller([&] {
      first.cancel();
      second.cancel();
    });
    std::thread sender([&] { framework_.dispatch(first); });
    std::thread stopper([&] { device_->OnQueryRemove(wdfDevice()); });
    framework_.dispatch(second);
    canceller.join();
    sender.join();
    stopper.join();
    ASSERT_TRUE(first.completed() && second.completed());
    story_.onShutdown = nullptr;
  }
}

// The framework may report a removal during a power operation.
TEST_F(DispatchRace, RemovalDuringPowerDown_WaitsForItsEnd) {
  std::future<void> removal;
  std::atomic<bool> begun{false};
  story_.onShutdown = [&] {
    if (begun.exchange(true)) return;
    removal = std::async(std::launch::async, [&] { device_->OnSurpriseRemoval(wdfDevice()); });
    EXPECT_TRUE(log_.waitFor("Start section:CMyDevice::OnSurpriseRemoval"));
    // Long enough for a removal that does not wait.
    EXPECT_EQ(removal.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    EXPECT_EQ(log_.count("OnSurpriseRemoval"), 0u);
  };
  EXPECT_EQ(framework_.exitD0(), status::kSuccess);
  removal.get();
  story_.onShutdown = nullptr;
  EXPECT_THAT(story_.taken(),
              testing::ElementsAre("exchanges ended 0", "shut down 0", "destroyed 0"));
  EXPECT_EQ(log_.count("OnSurpriseRemoval"), 1u);
}

}  // namespace
}  // namespace zelta
