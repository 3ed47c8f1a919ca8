#include "agent/program/log.h"

#include <gtest/gtest.h>

#include <regex>
#include <vector>

namespace zelta::agent {
namespace {

TEST(Log, LinesLessSeriousThanTheLeast_AreDropped) {
  std::vector<std::string> lines;
  Log log(Severity::kWarning, [&](Severity severity, const std::string& line) {
    lines.push_back(std::string(severityName(severity)) + " " + line);
  });
  log.error("1");
  log.warning("2");
  log.info("3");
  log.debug("4");
  EXPECT_EQ(lines, (std::vector<std::string>{"error 1", "warning 2"}));
  EXPECT_FALSE(log.wants(Severity::kInfo));
}

TEST(Log, TimeStamp_HasDateTimeAndMilliseconds) {
  const std::regex form("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z");
  EXPECT_TRUE(std::regex_match(timeStamp(), form)) << timeStamp();
}

}  // namespace
}  // namespace zelta::agent
