// An agent that sends any bytes on both pipes. Checks that each request is completed exactly once.
// Shared by the fuzzer and by the test that plays its corpus.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zelta::test {

// The first two bytes are the length (little-endian) of the bytes for the event pipe; these follow,
// and the rest goes to the command pipe. Both pipes break after their last byte. A violation fails
// the running test.
void playHostileAgent(const std::uint8_t* data, std::size_t size);

}  // namespace zelta::test
