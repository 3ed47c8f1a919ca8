// Feeds the agent link any bytes from the agent, on both pipes, and checks what must hold for all
// of them. Run it with -rss_limit_mb=512: an announced length must not be trusted.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

#include "tests/agent_link/hostile_agent.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  testing::GTEST_FLAG(break_on_failure) = true;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zelta::test::playHostileAgent(data, size);
  return 0;
}
