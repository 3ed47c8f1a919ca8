// Reads any text as the script of a card and plays what is one.
#include "tests/agent/card/any_script.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zelta::test::playAnyScript(data, size);
  return 0;
}
