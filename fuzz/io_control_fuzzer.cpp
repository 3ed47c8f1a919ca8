// Dispatches any requests to the device, with cards that move and power that changes.
#include "tests/driver/device/any_requests.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zelta::test::playAnyRequests(data, size);
  return 0;
}
