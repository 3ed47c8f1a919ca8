// The built module as seen by the program that loads it.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>

#include "tests/support/exported_names_linux.h"

namespace {

using testing::UnorderedElementsAre;

TEST(ModuleExports, AreTheFiveNamesAndNothingElse) {
  EXPECT_THAT(zelta::test::exportedNames(ZELTA_NM, ZELTA_MODULE),
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
