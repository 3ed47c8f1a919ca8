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
using test::repetitions;
using test::RequestSetup;

class DispatchRace : public test::DeviceFixture {
 protected:
  void SetUp() override { bringUp(); }

  FakeWdfRequest& make(std::uint32_t code) { return framework_.makeRequest({code, {}, {}}); }

  // As the agent's events and the reader's shutdown complete what waits.
  void completeWaiting(CardEvent awaited, Status status) {
    const TracedLock lock("test", reader_->waiting().deviceLock(), __LINE__);
    reader_->waiting().completeAll(awaited, status);
  }

  // Two requests on two threads while `race` and the shutdown run on two others.
  template <typename Race>
  void raceShutdown(std::uint32_t code, Race race) {
    FakeWdfRequest& first = make(code);
    FakeWdfRequest& second = make(code);
    std::thread racer([&] { race(first, second); });
    std::thread sender([&] { framework_.dispatch(first); });
    std::thread stopper([&] { device_->OnQueryRemove(wdfDevice()); });
    framework_.dispatch(second);
    racer.join();
    sender.join();
    stopper.join();
    ASSERT_TRUE(first.completed() && second.completed());
  }
};

// Whoever has got in stays until the exchanges are ended, and comes in before, during or after
// that.
TEST_F(DispatchRace, ShutdownRacingExchangesThatOnlyItEnds_EndsThemAll) {
  for (int round = 0; round < repetitions(300); ++round) {
    takeDown();
    std::promise<void> ended;
    const std::shared_future<void> end = ended.get_future().share();
    story_.onCheck = [end] { end.wait(); };
    story_.onEndExchanges = [&] { ended.set_value(); };
    bringUp();
    raceShutdown(IOCTL_SMARTCARD_IS_ABSENT, [](auto&, auto&) {});
    story_.onCheck = nullptr;
    story_.onEndExchanges = nullptr;
  }
}

TEST_F(DispatchRace, ShutdownRacingDispatchAndCancel_CompletesEachRequestOnce) {
  for (int round = 0; round < repetitions(300); ++round) {
    takeDown();
    story_.onShutdown = [this] {
      completeWaiting(CardEvent::kRemoved, status::kCancelled);
      completeWaiting(CardEvent::kInserted, status::kCancelled);
    };
    bringUp();
    raceShutdown(IOCTL_SMARTCARD_IS_PRESENT, [](FakeWdfRequest& first, FakeWdfRequest& second) {
      first.cancel();
      second.cancel();
    });
    story_.onShutdown = nullptr;
  }
}

// The framework may bring the news of a removal while a power operation is under way.
TEST_F(DispatchRace, RemovalDuringPowerDown_WaitsForItsEnd) {
  std::future<void> removal;
  std::atomic<bool> begun{false};
  story_.onShutdown = [&] {
    if (begun.exchange(true)) return;
    removal = std::async(std::launch::async, [&] { device_->OnSurpriseRemoval(wdfDevice()); });
    EXPECT_TRUE(log_.waitFor("Start section:CMyDevice::OnSurpriseRemoval"));
    // Long enough for one that does not wait.
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

TEST_F(DispatchRace, PowerAndPnpOperationsAtOnce_TakeTheReaderDownOnce) {
  for (int round = 0; round < repetitions(200); ++round) {
    takeDown();
    bringUp();
    std::vector<std::thread> threads;
    const auto start = [&](auto operation) { threads.emplace_back(operation); };
    start([&] { framework_.exitD0(); });
    start([&] { device_->OnSurpriseRemoval(wdfDevice()); });
    start([&] { device_->OnQueryRemove(wdfDevice()); });
    start([&] { device_->OnQueryStop(wdfDevice()); });
    start([&] { framework_.releaseHardware(); });
    start([&] { framework_.prepareHardware(); });
    for (std::thread& thread : threads) thread.join();
    ASSERT_THAT(story_.taken(),
                testing::ElementsAre("exchanges ended 0", "shut down 0", "destroyed 0"));
  }
}

}  // namespace
}  // namespace zelta
