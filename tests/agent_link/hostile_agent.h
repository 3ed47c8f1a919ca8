// An agent that sends any bytes at all on both pipes, and what must hold whatever they are: each
// request is completed exactly once. Shared by the fuzzer and by the test that plays its corpus.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zelta::test {

// The first two bytes are the length (little-endian) of what the agent sends on the event pipe;
// that follows, and all the rest goes to the command pipe. Both pipes break after their last
// byte. What is violated fails the running test.
void playHostileAgent(const std::uint8_t* data, std::size_t size);

}  // namespace zelta::test
