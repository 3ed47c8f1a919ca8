// Feeds the parser of answers to reset any bytes and checks what must hold for all of them.
#include <cstddef>
#include <cstdint>

#include "tests/reader/atr_invariants.h"
#include "tests/support/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const char* broken = zelta::test::brokenAtrRule({data, data + size});
  zelta::test::require(broken == nullptr, broken);
  return 0;
}
