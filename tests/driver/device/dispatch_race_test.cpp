// Parallel dispatch from the framework's side, with cancellation racing completion and shutdown.
// The framework's double fails the test where a request is completed twice, touched afterwards or
// let go of without completion.
#include <array>
#include <atomic>
#include <chrono>
#include <future>

#include "contract/bytes.h"
#include "contract/io_controls.h"
#include "diagnostics/traced_lock.h"
#include "tests/driver/device/device_fixture.h"
#include "tests/support/repetitions.h"

namespace zelta {
namespace {

using framework::ComPtr;
using test::DeviceFixture;
using test::FakeWdfRequest;
using test::Outcome;
using test::RequestSetup;

class DispatchRace : public DeviceFixture {
 protected:
  void SetUp() override { bringUp(); }

  ComPtr<FakeWdfRequest> make(const RequestSetup& setup = {}) {
    return ComPtr<FakeWdfRequest>(new FakeWdfRequest(setup));  // the test's own reference beside
  }

  // As the agent's events and the reader's shutdown complete what waits.
  void completeWaiting(CardEvent awaited, framework::HRESULT status) {
    const TracedLock lock("test", reader_->waiting().deviceLock(), __LINE__);
    reader_->waiting().completeAll(awaited, status);
  }
};

TEST_F(DispatchRace, CancelRacesTheEvent) {
  for (int round = 0; round < test::repetitions(2000); ++round) {
    log_.clear();
    const bool insert = round % 2 == 0;
    story_.checkResult = insert ? QueryResult::kFailure : QueryResult::kSuccess;
    const auto request = make();
    std::thread canceller([&] { request->cancel(); });
    std::thread agent(
        [&] { completeWaiting(insert ? CardEvent::kInserted : CardEvent::kRemoved, 0); });
    dispatch(request.get(), insert ? IOCTL_SMARTCARD_IS_PRESENT : IOCTL_SMARTCARD_IS_ABSENT, {});
    canceller.join();
    agent.join();
    ASSERT_TRUE(request->outcome()->completed());
    ASSERT_EQ(request->references(), 1u);
  }
}

TEST_F(DispatchRace, AllControlsAtOnce) {
  constexpr std::array kCodes = {
      IOCTL_SMARTCARD_GET_ATTRIBUTE, IOCTL_SMARTCARD_IS_PRESENT, IOCTL_SMARTCARD_GET_STATE,
      IOCTL_SMARTCARD_IS_ABSENT,     IOCTL_SMARTCARD_POWER,      IOCTL_SMARTCARD_SET_ATTRIBUTE,
      IOCTL_SMARTCARD_SET_PROTOCOL,  IOCTL_SMARTCARD_TRANSMIT,   IOCTL_SMARTCARD_EJECT};
  RequestSetup setup;
  setup.input = Bytes{1, 0, 0, 0, 8, 0, 0, 0, 0, 0xA4};
  setup.outputCapacity = 64;
  std::vector<std::thread> threads;
  for (unsigned thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      for (unsigned i = 0; i < 400; ++i) {
        const auto request = make(setup);
        story_.checkResult = i % 2 == 0 ? QueryResult::kFailure : QueryResult::kSuccess;
        dispatch(request.get(), kCodes[(i + thread) % kCodes.size()], setup);
        request->cancel();
        EXPECT_TRUE(request->outcome()->completed());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(reader_->waiting().any(CardEvent::kInserted));
  EXPECT_FALSE(reader_->waiting().any(CardEvent::kRemoved));
}

// Whoever has got in stays until the exchanges are ended, and comes in before, during or after
// that.
TEST_F(DispatchRace, ShutdownRacesExchangesThatOnlyItEnds) {
  for (int round = 0; round < test::repetitions(300); ++round) {
    takeDown();
    platform::Mutex mutex;
    platform::ConditionVariable changed;
    bool ended = false;
    story_.onCheck = [&] {
      platform::MutexLock lock(mutex);
      changed.wait(lock, [&] { return ended; });
    };
    story_.onEndExchanges = [&] {
      const platform::MutexLock lock(mutex);
      ended = true;
      changed.notifyAll();
    };
    bringUp();
    const auto first = make();
    const auto second = make();
    std::thread sender([&] { dispatch(first.get(), IOCTL_SMARTCARD_IS_ABSENT, {}); });
    std::thread stopper([&] { device_->OnQueryRemove(wdfDevice()); });
    dispatch(second.get(), IOCTL_SMARTCARD_IS_ABSENT, {});
    sender.join();
    stopper.join();
    ASSERT_TRUE(first->outcome()->completed());
    ASSERT_TRUE(second->outcome()->completed());
    story_.onCheck = nullptr;
    story_.onEndExchanges = nullptr;
  }
}

// The framework may bring the news of a removal while a power operation is under way.
TEST_F(DispatchRace, RemovalDuringPowerDownWaitsForItsEnd) {
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
  EXPECT_EQ(device_->OnD0Exit(wdfDevice(), framework::kPowerDeviceD3Final), 0);
  removal.get();
  story_.onShutdown = nullptr;
  EXPECT_THAT(story_.taken(),
              testing::ElementsAre("exchanges ended 0", "shut down 0", "destroyed 0"));
  EXPECT_EQ(log_.count("OnSurpriseRemoval"), 1u);
}

TEST_F(DispatchRace, PowerAndPnpOperationsAtOnceTakeTheReaderDownOnce) {
  for (int round = 0; round < test::repetitions(200); ++round) {
    takeDown();
    bringUp();
    std::vector<std::thread> threads;
    const auto start = [&](auto operation) { threads.emplace_back(operation); };
    start([&] { device_->OnD0Exit(wdfDevice(), framework::kPowerDeviceD3Final); });
    start([&] { device_->OnSurpriseRemoval(wdfDevice()); });
    start([&] { device_->OnQueryRemove(wdfDevice()); });
    start([&] { device_->OnQueryStop(wdfDevice()); });
    start([&] { device_->OnReleaseHardware(wdfDevice()); });
    start([&] { device_->OnPrepareHardware(wdfDevice()); });
    for (std::thread& thread : threads) thread.join();
    ASSERT_THAT(story_.taken(),
                testing::ElementsAre("exchanges ended 0", "shut down 0", "destroyed 0"));
  }
}

TEST_F(DispatchRace, ShutdownRacesDispatchAndCancel) {
  for (int round = 0; round < test::repetitions(300); ++round) {
    takeDown();
    story_.onShutdown = [this] {
      completeWaiting(CardEvent::kRemoved, framework::hresult(0x800704C7));
      completeWaiting(CardEvent::kInserted, framework::hresult(0x800704C7));
    };
    bringUp();
    const auto first = make();
    const auto second = make();
    std::thread canceller([&] {
      first->cancel();
      second->cancel();
    });
    std::thread sender([&] { dispatch(first.get(), IOCTL_SMARTCARD_IS_PRESENT, {}); });
    std::thread stopper([&] { device_->OnQueryRemove(wdfDevice()); });
    dispatch(second.get(), IOCTL_SMARTCARD_IS_PRESENT, {});
    canceller.join();
    sender.join();
    stopper.join();
    ASSERT_TRUE(first->outcome()->completed());
    ASSERT_TRUE(second->outcome()->completed());
    story_.onShutdown = nullptr;
  }
}

}  // namespace
}  // namespace zelta
