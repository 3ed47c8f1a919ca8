// Feeds the parser of answers to reset any bytes and checks what must hold for all of them.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "tests/reader/atr_invariants.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const char* broken = zelta::test::brokenAtrRule({data, data + size});
  if (broken != nullptr) {
    (void)std::fprintf(stderr, "violated: %s\n", broken);
    std::abort();
  }
  return 0;
}
