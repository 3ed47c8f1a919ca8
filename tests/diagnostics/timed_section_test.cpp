#include "diagnostics/timed_section.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/sync/clock.h"
#include "tests/doubles/logging/log_capture.h"

namespace zelta {
namespace {

TEST(TimedSection, Scope_ReportsItsStartAndItsMilliseconds) {
  test::LogCapture log;
  std::string name = "CMyDevice::OnD0Entry";
  const std::uint32_t before = platform::tickCount();
  std::uint32_t inner = 0;
  {
    const TimedSection section(name.c_str());
    name.assign(name.size(), '?');  // it has a copy
    EXPECT_EQ(log.records(), std::vector{test::debug("Start section:CMyDevice::OnD0Entry")});
    const std::uint32_t start = platform::tickCount();
    while (platform::tickCount() - start < 3) {  // what is measured is time itself
    }
    inner = platform::tickCount() - start;
  }
  const std::uint32_t outer = platform::tickCount() - before;
  const auto records = log.records();
  ASSERT_EQ(records.size(), 2u);
  const std::string prefix = "End section:CMyDevice::OnD0Entry elapsed:";
  ASSERT_EQ(records[1].text.substr(0, prefix.size()), prefix);
  const std::string elapsed = records[1].text.substr(prefix.size());
  EXPECT_EQ(records[1], test::debug(prefix + elapsed));
  EXPECT_GE(std::stoi(elapsed), static_cast<int>(inner));
  EXPECT_LE(std::stoi(elapsed), static_cast<int>(outer));
}

}  // namespace
}  // namespace zelta
