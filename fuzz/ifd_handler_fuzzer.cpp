// Calls the functions of the handler in any order and with any arguments.
#include "tests/pcsc/any_calls.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zelta::test::playAnyCalls(data, size);
  return 0;
}
