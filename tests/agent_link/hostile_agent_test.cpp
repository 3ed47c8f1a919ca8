// Plays what the fuzzer starts from and what it has found.
#include "tests/agent_link/hostile_agent.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace zelta::test {
namespace {

TEST(HostileAgent, OfTheCorpus_LeavesEveryRequestCompletedOnce) {
  int played = 0;
  for (const auto& entry : std::filesystem::directory_iterator(ZELTA_LINK_CORPUS)) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    SCOPED_TRACE(entry.path());
    playHostileAgent(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    ++played;
  }
  EXPECT_GE(played, 10);
}

}  // namespace
}  // namespace zelta::test
