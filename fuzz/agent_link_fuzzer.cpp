// Feeds the agent link any bytes from the agent, on both pipes, and checks what must hold for all
// of them. Run it with -rss_limit_mb=512: an announced length must not be taken at its word.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "tests/agent_link/hostile_agent.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string violated = zelta::test::playHostileAgent(data, size);
  if (violated.empty()) return 0;
  std::fprintf(stderr, "violated: %s\n", violated.c_str());
  std::abort();
}
