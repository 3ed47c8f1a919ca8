// Sends the agent's control socket any lines and reads what it answers.
#include "tests/agent/control/any_control_line.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zelta::test::playAnyControlLine(data, size);
  return 0;
}
