// Feeds the agent's connection any bytes from the driver, on both pipes, while cards move.
#include "tests/agent/link/hostile_driver.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zelta::test::playHostileDriver(data, size);
  return 0;
}
