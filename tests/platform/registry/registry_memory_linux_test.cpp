// Memory that runs out in the registry of a file.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <string>

#include "platform/process/error.h"
#include "platform/registry/registry_linux.h"
#include "tests/support/scarce_memory.h"
#include "tests/support/temp_folder.h"

namespace zelta::platform {
namespace {

TEST(RegistryMemory, NoMemoryLeft_FailsTheCallWithoutAnException) {
  const test::TempFolder folder;
  std::ofstream(folder.file("file"))
      << "[HKLM\\A]\n\"x\"=dword:1\n\"a text that does not fit into a string itself\"=\"text\"\n";
  FileRegistry registry([&] { return folder.file("file"); }, [](const std::string&) {});
  const EventHandle event = systemEvents().create();
  RegistryKey key = nullptr;
  ASSERT_EQ(registry.openKey(u"A", &key), error::kSuccess);
  std::uint32_t number = 0;
  RegistryKey opened = nullptr;
  const std::u16string path = u"A";
  const std::u16string value = u"x";
  const std::function<std::uint32_t()> calls[] = {
      [&] { return registry.getDword(path, value, &number); },
      [&] { return registry.openKey(path, &opened); },
      [&] {
        std::uint32_t size = sizeof(number);
        return registry.queryValue(key, value, nullptr, &number, &size);
      },
      [&] { return registry.notifyChange(key, event); },
  };
  for (const auto& call : calls) {
    for (test::MemorySweep sweep; sweep.next();) {
      std::uint32_t result = 0;
      sweep.run([&]() noexcept { result = call(); });
      EXPECT_EQ(result, sweep.ranOut() ? error::kNotEnoughMemory : error::kSuccess);
    }
  }
  registry.closeKey(opened);
  registry.closeKey(key);
  systemEvents().close(event);
}

}  // namespace
}  // namespace zelta::platform
