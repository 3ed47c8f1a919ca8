// Cancellation racing with completion: each request is completed by one of the two, once.
#include <thread>

#include "contract/io_controls.h"
#include "contract/wire.h"
#include "tests/module/hosted_module.h"
#include "tests/module/recorded_module.h"
#include "tests/support/repetitions.h"

namespace zelta::test {
namespace {

// Runs actions on a thread of its own, one at a time.
class Runner {
 public:
  Runner() : thread_([this] { run(); }) {}
  ~Runner() {
    {
      platform::MutexLock lock(mutex_);
      stop_ = true;
      changed_.notifyAll();
    }
    thread_.join();
  }
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;

  void start(std::function<void()> action) {
    platform::MutexLock lock(mutex_);
    action_ = std::move(action);
    changed_.notifyAll();
  }
  void finish() {
    platform::MutexLock lock(mutex_);
    changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return !action_; });
  }

 private:
  void run() {
    platform::MutexLock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this]() ZELTA_NO_THREAD_SAFETY_ANALYSIS { return stop_ || action_; });
      if (!action_) return;
      const std::function<void()> action = action_;
      lock.unlock();
      action();
      lock.lock();
      action_ = nullptr;
      changed_.notifyAll();
    }
  }

  platform::Mutex mutex_;
  platform::ConditionVariable changed_;
  std::function<void()> action_ ZELTA_GUARDED_BY(mutex_);
  bool stop_ ZELTA_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

constexpr int kRounds = repetitions(2000);

class HostedCancellationTest : public HostedModuleTest {};

TEST_F(HostedCancellationTest, CancelRacingWithTheCardsArrivalCompletesOnce) {
  connectAgent();
  Runner canceller;
  int cancelled = 0;
  for (int round = 0; round < kRounds; ++round) {
    std::atomic<int> completions{0};
    const auto operation = file_->submit(IOCTL_SMARTCARD_IS_PRESENT, {}, 0,
                                         [&](const host::IoResult&) { ++completions; });
    canceller.start([&] { operation->cancel(); });
    ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
    canceller.finish();
    ASSERT_TRUE(operation->wait(kLong));
    ASSERT_EQ(completions, 1);
    ASSERT_TRUE(operation->result().status == answer::kSuccess ||
                operation->result().status == answer::kCancelled);
    if (operation->result().status == answer::kCancelled) ++cancelled;
  }
  RecordProperty("cancelled", cancelled);
  agent_.setCardIn(CardAgent::atrOfT1());
  EXPECT_EQ(status(IOCTL_SMARTCARD_IS_PRESENT), answer::kSuccess);
}

TEST_F(HostedCancellationTest, CancelRightAfterTheDispatchCompletesOnce) {
  connectAgent();
  for (int round = 0; round < kRounds; ++round) {
    std::atomic<int> completions{0};
    const auto operation = file_->submit(IOCTL_SMARTCARD_IS_PRESENT, {}, 0,
                                         [&](const host::IoResult&) { ++completions; });
    operation->cancel();
    ASSERT_TRUE(operation->wait(kLong));
    ASSERT_EQ(completions, 1);
    ASSERT_EQ(operation->result().status, answer::kCancelled);
  }
}

class RecordedCancellationTest : public RecordedModuleTest {};

TEST_F(RecordedCancellationTest, CancelRacingWithTheCardsArrivalKeepsTheRules) {
  connectAgent();
  Runner canceller;
  for (int round = 0; round < kRounds; ++round) {
    RecordingRequest& request = framework_->dispatch({IOCTL_SMARTCARD_IS_PRESENT, {}, {}});
    canceller.start([&] { request.cancel(); });
    ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardInserted));
    canceller.finish();
    ASSERT_TRUE(request.waitCompleted(kLong));
  }
}

TEST_F(RecordedCancellationTest, CancelRacingWithTheDispatchKeepsTheRules) {
  connectAgent();
  Runner canceller;
  for (int round = 0; round < kRounds; ++round) {
    RecordingRequest& request = framework_->makeRequest({IOCTL_SMARTCARD_IS_PRESENT, {}, {}});
    canceller.start([&] { request.cancel(); });
    framework_->dispatch(request);
    canceller.finish();
    ASSERT_TRUE(request.waitCompleted(kLong));
    ASSERT_EQ(request.status(), answer::kCancelled);
  }
}

TEST_F(RecordedCancellationTest, CancelRacingWithTheShutdownKeepsTheRules) {
  std::vector<RecordingRequest*> requests;
  for (int i = 0; i < 200; ++i) {
    requests.push_back(&framework_->dispatch({IOCTL_SMARTCARD_IS_PRESENT, {}, {}}));
  }
  {
    Runner canceller;
    canceller.start([&] {
      for (RecordingRequest* request : requests) request->cancel();
    });
    framework_->exitD0();
  }
  for (const RecordingRequest* request : requests) EXPECT_EQ(request->status(), answer::kCancelled);
}

TEST_F(RecordedCancellationTest, RequestsOfFourThreadsAreCompletedOnceEach) {
  agent_.setCardIn(CardAgent::atrOfT1());
  connectAgent();
  std::vector<std::thread> callers;
  for (int caller = 0; caller < 4; ++caller) {
    callers.emplace_back([this, caller] {
      for (int i = 0; i < repetitions(100); ++i) {
        framework_->dispatch({IOCTL_SMARTCARD_POWER, number(SCARD_COLD_RESET), 64});
        framework_->dispatch({IOCTL_SMARTCARD_GET_STATE, {}, 4});
        RecordingRequest& removal = framework_->dispatch({IOCTL_SMARTCARD_IS_ABSENT, {}, {}});
        if (caller % 2 == 0) removal.cancel();
      }
    });
  }
  for (int i = 0; i < repetitions(100); ++i)
    ASSERT_TRUE(agent_.sendEvent(AgentEvent::kCardRemoved));
  for (std::thread& caller : callers) caller.join();
}

}  // namespace
}  // namespace zelta::test
