#include "driver/module/build_version.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace zelta {
namespace {

TEST(BuildVersion, IsTheProjectsVersionAndACommit) {
  const std::regex form(std::string(ZELTA_PROJECT_VERSION) + "\\+(unknown|[0-9a-f]{7,40})");
  EXPECT_TRUE(std::regex_match(buildVersion(), form)) << buildVersion();
}

}  // namespace
}  // namespace zelta
