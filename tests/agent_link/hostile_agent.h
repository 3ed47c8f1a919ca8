// An agent that sends any bytes at all on both pipes, and what must hold whatever they are.
// Shared by the fuzzer and by the test that plays the fuzzer's corpus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zelta::test {

// The first two bytes are the length (little-endian) of what the agent sends on the event pipe;
// that follows, and all the rest goes to the command pipe. Both pipes break behind their last
// byte. What was violated, or an empty text.
std::string playHostileAgent(const std::uint8_t* data, std::size_t size);

}  // namespace zelta::test
