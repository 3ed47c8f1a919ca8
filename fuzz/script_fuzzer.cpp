// Parses any text as a card script and plays it if it is valid.
#include "tests/agent/card/any_script.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zelta::test::playAnyScript(data, size);
  return 0;
}
