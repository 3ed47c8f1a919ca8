// Shows any bytes as a log, in every format.
#include "tests/tools/logs/any_log.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zelta::test::playAnyLog(data, size);
  return 0;
}
