// Sends an agent any bytes from the other end of the line between two machines.
#include <cstddef>
#include <cstdint>

#include "tests/agent/remote/any_frames.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zelta::test::playAnyFrames(data, size);
  return 0;
}
