// Feeds the registry file parser any bytes and checks what must hold for all of them.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/registry/registry_file.h"
#include "tests/support/fuzz_input.h"

namespace zelta {
namespace {

using test::require;

void check(std::string_view bytes) {
  using namespace platform;
  std::size_t skipped = 0;
  std::size_t last = 0;
  const RegistryContent content =
      parseRegistryFile(bytes, [&](std::size_t number, std::u16string_view line) {
        require(number > last, "each line is skipped once, in order");
        require(number <= bytes.size(), "a line that is skipped is in the file");
        require(!line.empty(), "an empty line is understood");
        last = number;
        ++skipped;
      });

  std::size_t skippedAgain = 0;
  const RegistryContent again =
      parseRegistryFile(bytes, [&](std::size_t, std::u16string_view) { ++skippedAgain; });
  require(content.sameSubtree(again, u""), "the same bytes hold the same");
  require(skipped == skippedAgain, "the same lines are skipped");
  require(content.hasKey(u""), "the root is always there");
}

}  // namespace
}  // namespace zelta

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zelta::check({reinterpret_cast<const char*>(data), size});
  return 0;
}
