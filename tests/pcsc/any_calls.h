// Makes pcscd's calls in any order and with any arguments, on readers whose card comes and goes and
// answers anything, and checks what must always hold. Shared by the fuzzer and by the test that
// plays its corpus.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zelta::test {

// Each call is a byte and its arguments. Ends the process if a rule is broken. For programs that
// are linked with the handler's functions and that have no other driver host.
void playAnyCalls(const std::uint8_t* data, std::size_t size);

}  // namespace zelta::test
