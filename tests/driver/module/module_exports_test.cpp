// What the built module shows to the program that loads it.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

using testing::UnorderedElementsAre;

std::string outputOf(const std::string& command) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  std::string output;
  char buffer[256];
  while (std::fgets(buffer, sizeof buffer, pipe.get()) != nullptr) output += buffer;
  return output;
}

// "address type name" of every defined dynamic symbol.
std::vector<std::string> exportedNames() {
  std::istringstream lines(outputOf(std::string(ZELTA_NM) + " -D --defined-only " ZELTA_MODULE));
  std::vector<std::string> names;
  std::string address;
  std::string type;
  std::string name;
  while (lines >> address >> type >> name) names.push_back(name);
  return names;
}

TEST(ModuleExports, AreTheFiveNamesAndNothingElse) {
  EXPECT_THAT(exportedNames(),
              UnorderedElementsAre("DllCanUnloadNow", "DllGetClassObject", "DllRegisterServer",
                                   "DllUnregisterServer", "Microsoft_WDF_UMDF_Version"));
}

TEST(ModuleExports, HoldTheFrameworkVersion) {
  void* module = dlopen(ZELTA_MODULE, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr) << dlerror();
  const auto* version =
      static_cast<const std::uint32_t*>(dlsym(module, "Microsoft_WDF_UMDF_Version"));
  ASSERT_NE(version, nullptr);
  EXPECT_EQ(version[0], 1u);
  EXPECT_EQ(version[1], 11u);
  EXPECT_EQ(version[2], 0u);
  EXPECT_EQ(dlclose(module), 0);
}

}  // namespace
