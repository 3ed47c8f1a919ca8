#include "reader/waiting_requests.h"

#include <chrono>
#include <future>
#include <utility>

#include "contract/status.h"
#include "diagnostics/traced_lock.h"
#include "tests/reader/reader_fixture.h"

namespace zelta::test {
namespace {

constexpr CardEvent kBoth[] = {CardEvent::kInserted, CardEvent::kRemoved};

class WaitingRequestsTest : public testing::Test {
 protected:
  // Adds a request that is marked cancelable, like any waiting one.
  void add(CardEvent awaited, FakeRequest& request) {
    const TracedLock lock("test", waiting_.deviceLock(), __LINE__);
    waiting_.add(awaited, request);
    framework::ComPtr<framework::IRequestCallbackCancel> callback;
    ASSERT_EQ(device_.queryInterface(framework::IRequestCallbackCancel::iid, callback.putVoid()),
              framework::kOk);
    request.markCancelable(callback.get());
  }

  bool remove(CardEvent awaited, const FakeRequest& request) {
    const TracedLock lock("test", waiting_.deviceLock(), __LINE__);
    return waiting_.remove(awaited, request);
  }

  FakeReaderDevice device_;
  WaitingRequests waiting_{device_};
};

// Newest first.
TEST_F(WaitingRequestsTest, CompletesAllOfAnEventWithTheStatusAndNoOutput) {
  for (const CardEvent awaited : kBoth) {
    FakeRequest first(device_);
    FakeRequest second(device_);
    add(awaited, first);
    add(awaited, second);
    {
      const TracedLock lock("test", waiting_.deviceLock(), __LINE__);
      waiting_.completeAll(awaited, status::kSuccess);
    }
    for (const FakeRequest* request : {&first, &second}) {
      EXPECT_EQ(request->status(), 0u);
      EXPECT_EQ(request->information(), 0u);
    }
    const std::vector<const IoRequest*> completed = device_.completed();
    EXPECT_EQ(completed[completed.size() - 2], &second);
    EXPECT_EQ(completed.back(), &first);
    EXPECT_FALSE(waiting_.any(awaited));
  }
}

TEST_F(WaitingRequestsTest, CancelsTheNewestAloneAndPlainly) {
  for (const CardEvent awaited : kBoth) {
    FakeRequest first(device_);
    FakeRequest second(device_);
    add(awaited, first);
    add(awaited, second);
    {
      const TracedLock lock("test", waiting_.deviceLock(), __LINE__);
      waiting_.cancelNewest(awaited);
    }
    EXPECT_FALSE(first.completed());
    EXPECT_EQ(second.status(), kCancelled);
    EXPECT_FALSE(second.information().has_value());
    EXPECT_TRUE(remove(awaited, first));
    const TracedLock lock("test", waiting_.deviceLock(), __LINE__);
    waiting_.cancelNewest(awaited);  // of none
  }
}

TEST_F(WaitingRequestsTest, RequestThatIsBeingCancelled_OnlyLeavesItsList) {
  FakeRequest request(device_);
  FakeRequest other(device_);
  add(CardEvent::kInserted, request);
  add(CardEvent::kInserted, other);
  request.beginCancel();
  const TracedLock lock("test", waiting_.deviceLock(), __LINE__);
  waiting_.completeAll(CardEvent::kInserted, status::kSuccess);
  EXPECT_FALSE(request.completed());
  EXPECT_EQ(other.status(), status::kSuccess);
  EXPECT_FALSE(waiting_.any(CardEvent::kInserted));
}

TEST_F(WaitingRequestsTest, QuestionAwaitsItsEventAndNotices) {
  const TracedLock lock("test", waiting_.deviceLock(), __LINE__);
  for (const CardEvent event : kBoth) {
    const CardEvent other = event == kBoth[0] ? kBoth[1] : kBoth[0];
    waiting_.note(event);
    EXPECT_FALSE(waiting_.awaited(event));
    {
      const WaitingRequests::Question question(waiting_, event);
      EXPECT_TRUE(waiting_.awaited(event));
      EXPECT_FALSE(waiting_.awaited(other));
      waiting_.note(other);
      EXPECT_FALSE(question.overtaken());
      waiting_.note(event);
      EXPECT_TRUE(question.overtaken());
    }
    EXPECT_FALSE(waiting_.awaited(event));
  }
}

// The wait for an insertion request, and what ends it.
class InsertionWait : public WaitingRequestsTest {
 protected:
  static constexpr std::chrono::seconds kLimit{30};

  // Begins the wait; returns when it blocks.
  std::future<bool> begin() {
    std::promise<void> looked;
    std::future<void> waits = looked.get_future();
    auto wait = std::async(std::launch::async, [this, looked = std::move(looked)]() mutable {
      bool first = true;
      platform::MutexLock lock(waiting_.mutex());
      return waiting_.awaitInsertionRequest(lock, 10 * kLimit, [&] {
        if (std::exchange(first, false)) looked.set_value();  // holds the mutex until it waits
        return stopped_.load();
      });
    });
    waits.wait();
    return wait;
  }

  // True if a request or a stop ended the wait in time.
  static bool ends(std::future<bool>& wait) {
    return wait.wait_for(kLimit) == std::future_status::ready && wait.get();
  }

  std::atomic<bool> stopped_{false};
};

TEST_F(InsertionWait, EndsWithAnInsertionRequest) {
  auto wait = begin();
  FakeRequest request(device_);
  add(CardEvent::kInserted, request);
  EXPECT_TRUE(ends(wait));
  EXPECT_TRUE(remove(CardEvent::kInserted, request));
}

TEST_F(InsertionWait, EndsWhenItIsWokenAndStopped) {
  auto wait = begin();
  stopped_ = true;
  waiting_.wakeInsertionWait();
  EXPECT_TRUE(ends(wait));
}

TEST_F(InsertionWait, EndsWithItsLimit) {
  platform::MutexLock lock(waiting_.mutex());
  EXPECT_FALSE(
      waiting_.awaitInsertionRequest(lock, std::chrono::milliseconds(1), [] { return false; }));
}

}  // namespace
}  // namespace zelta::test
