#include "platform/sync/event.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/process/error.h"

namespace zelta::platform {
namespace {

class Event : public testing::Test {
 protected:
  ~Event() override {
    for (const EventHandle event : events_) api_.close(event);
  }
  EventHandle create() {
    const EventHandle event = api_.create();
    EXPECT_NE(event, nullptr);
    events_.push_back(event);
    return event;
  }
  std::uint32_t waitAny(const std::vector<EventHandle>& events) {
    return api_.waitAny(events.data(), events.size());
  }

  EventApi& api_ = systemEvents();
  std::vector<EventHandle> events_;
};

TEST_F(Event, SeveralSignalled_AreTakenOnceEachInTheirOrder) {
  const std::vector<EventHandle> all = {create(), create(), create()};
  // Several signals before a wait are one.
  for (int i = 0; i < 3; ++i) {
    for (const EventHandle event : all) ASSERT_TRUE(api_.set(event));
  }
  for (std::uint32_t i = 0; i < all.size(); ++i) EXPECT_EQ(waitAny(all), i);
}

TEST_F(Event, UpToEight_AreWaitedFor) {
  std::vector<EventHandle> all;
  for (int i = 0; i < 8; ++i) all.push_back(create());
  ASSERT_TRUE(api_.set(all.back()));
  EXPECT_EQ(waitAny(all), 7U);
}

TEST_F(Event, OneSignal_ReleasesOneOfSeveralWaiters) {
  constexpr int kWaiters = 3;
  const EventHandle event = create();
  const EventHandle done = create();
  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      waitAny({event});
      ++released;
      api_.set(done);
    });
  }
  for (int i = 1; i <= kWaiters; ++i) {
    ASSERT_TRUE(api_.set(event));
    ASSERT_EQ(waitAny({done}), 0U);
    ASSERT_EQ(released, i);
  }
  for (std::thread& waiter : waiters) waiter.join();
}

TEST_F(Event, HandleThatIsNoEvents_FailsWithInvalidHandle) {
  const EventHandle event = create();
  const EventHandle closed = api_.create();
  api_.close(closed);
  for (const EventHandle none : {EventHandle{}, closed}) {
    setLastError(0);
    EXPECT_FALSE(api_.set(none));
    EXPECT_EQ(lastError(), error::kInvalidHandle);
    setLastError(0);
    EXPECT_EQ(waitAny({event, none}), kWaitFailed);
    EXPECT_EQ(lastError(), error::kInvalidHandle);
    api_.close(none);
  }
}

TEST_F(Event, WaitForNothing_FailsWithInvalidParameter) {
  setLastError(0);
  EXPECT_EQ(waitAny({}), kWaitFailed);
  EXPECT_EQ(lastError(), error::kInvalidParameter);
}

#if !defined(_WIN32)
TEST(EventLinux, ClosedHandle_IsNotGivenOutAgain) {
  const EventHandle closed = systemEvents().create();
  systemEvents().close(closed);
  std::vector<EventHandle> events;
  for (int i = 0; i < 100; ++i) {
    events.push_back(systemEvents().create());
    EXPECT_NE(events.back(), closed);
  }
  for (const EventHandle event : events) systemEvents().close(event);
}

TEST(EventLinux, WaitForTooMany_FailsWithInvalidParameter) {
  const std::vector<EventHandle> nine(9, systemEvents().create());
  setLastError(0);
  EXPECT_EQ(systemEvents().waitAny(nine.data(), nine.size()), kWaitFailed);
  EXPECT_EQ(lastError(), error::kInvalidParameter);
  systemEvents().close(nine.front());
}
#endif

}  // namespace
}  // namespace zelta::platform
