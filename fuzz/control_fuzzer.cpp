// Has an agent answer any lines as on its control socket, without the socket, and reads any
// answers.
#include "tests/agent/control/any_control_line.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zelta::test::playAnyControlLine(data, size);
  return 0;
}
