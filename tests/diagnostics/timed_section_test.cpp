#include "diagnostics/timed_section.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/sync/clock.h"
#include "tests/support/log_capture.h"

namespace zelta {
namespace {

using test::debug;
using test::LogCapture;
using test::LogRecord;

// The number of "End section:<name> elapsed:<n>".
int elapsedOf(const LogRecord& record, const std::string& name) {
  const std::string prefix = "End section:" + name + " elapsed:";
  EXPECT_EQ(record.text.substr(0, prefix.size()), prefix);
  return std::stoi(record.text.substr(prefix.size()));
}

TEST(TimedSection, ReportsStartAndEndAtDebugLevel) {
  LogCapture log;
  {
    const TimedSection section("CMyDevice::OnD0Entry");
    EXPECT_EQ(log.records(), std::vector<LogRecord>{debug("Start section:CMyDevice::OnD0Entry")});
  }
  const auto records = log.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].level, 3);
  EXPECT_EQ(records[1].code, 0);
  EXPECT_GE(elapsedOf(records[1], "CMyDevice::OnD0Entry"), 0);
}

TEST(TimedSection, ElapsedIsTheTicksOfTheScope) {
  LogCapture log;
  std::uint32_t inner = 0;
  const std::uint32_t before = platform::tickCount();
  {
    const TimedSection section("x");
    const std::uint32_t start = platform::tickCount();
    while (platform::tickCount() - start < 3) {  // what is measured is time itself
    }
    inner = platform::tickCount() - start;
  }
  const std::uint32_t outer = platform::tickCount() - before;
  const int elapsed = elapsedOf(log.records().back(), "x");
  EXPECT_GE(elapsed, static_cast<int>(inner));
  EXPECT_LE(elapsed, static_cast<int>(outer));
}

TEST(TimedSection, CopiesItsName) {
  LogCapture log;
  {
    std::string name = "CMyQueue::CreateInstance";
    const TimedSection section(name.c_str());
    name.assign(name.size(), '?');
  }
  EXPECT_GE(elapsedOf(log.records().back(), "CMyQueue::CreateInstance"), 0);
}

}  // namespace
}  // namespace zelta
