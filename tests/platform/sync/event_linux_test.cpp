// What the events of this system promise beyond the others'.
#include <gtest/gtest.h>

#include <vector>

#include "platform/process/error.h"
#include "platform/sync/event.h"

namespace zelta::platform {
namespace {

TEST(EventLinux, AClosedHandleIsNotGivenOutAgain) {
  const EventHandle closed = systemEvents().create();
  systemEvents().close(closed);
  std::vector<EventHandle> events;
  for (int i = 0; i < 100; ++i) {
    events.push_back(systemEvents().create());
    EXPECT_NE(events.back(), closed);
  }
  for (const EventHandle event : events) systemEvents().close(event);
}

TEST(EventLinux, TooManyFailWithInvalidParameter) {
  const std::vector<EventHandle> nine(9, systemEvents().create());
  setLastError(0);
  EXPECT_EQ(systemEvents().waitAny(nine.data(), nine.size()), kWaitFailed);
  EXPECT_EQ(lastError(), error::kInvalidParameter);
  systemEvents().close(nine.front());
}

}  // namespace
}  // namespace zelta::platform
