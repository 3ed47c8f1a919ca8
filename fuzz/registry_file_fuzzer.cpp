// Feeds the registry file parser any bytes and checks what must hold for all of them.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "platform/registry_file.h"

namespace {

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "violated: %s\n", what);
  std::abort();
}

void check(std::string_view bytes) {
  using zelta::platform::ParsedRegistry;
  const ParsedRegistry parsed = zelta::platform::parseRegistryFile(bytes);

  require(parsed.skipped.size() <= ParsedRegistry::kListedLines, "the list has a limit");
  require(parsed.skipped.size() <= parsed.skippedCount, "every listed line is counted");
  require(parsed.skippedCount <= bytes.size(), "no more lines are skipped than there are");
  std::size_t last = 0;
  for (const auto& line : parsed.skipped) {
    require(line.number > last, "each line is skipped once, in order");
    require(line.number <= bytes.size() + 1, "a line that is skipped is in the file");
    last = line.number;
  }

  const ParsedRegistry again = zelta::platform::parseRegistryFile(bytes);
  require(parsed.content.sameSubtree(again.content, u""), "the same bytes hold the same");
  require(parsed.skippedCount == again.skippedCount, "the same lines are skipped");
  require(parsed.content.hasKey(u""), "the root is always there");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  check({reinterpret_cast<const char*>(data), size});
  return 0;
}
