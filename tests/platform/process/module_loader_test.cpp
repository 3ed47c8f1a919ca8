#include "platform/process/module_loader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/process_state.h"

namespace zelta::platform {
namespace {

using ::testing::HasSubstr;

TEST(ModuleLoaderTest, MissingFileGivesTheReason) {
  std::string reason;
  EXPECT_EQ(openModule("/nonexistent/module.so", &reason), nullptr);
  EXPECT_THAT(reason, HasSubstr("/nonexistent/module.so"));
}

TEST(ModuleLoaderTest, ExportsAreFoundByName) {
  std::string reason;
  const ModuleHandle module = openModule(ZELTA_MODULE, &reason);
  ASSERT_NE(module, nullptr) << reason;
  EXPECT_NE(moduleSymbol(module, "DllCanUnloadNow"), nullptr);
  EXPECT_EQ(moduleSymbol(module, "NoSuchExport"), nullptr);
  EXPECT_TRUE(closeModule(module));
}

TEST(ModuleLoaderTest, ModuleIsMappedUntilTheLastHandleIsClosed) {
  std::string reason;
  const ModuleHandle first = openModule(ZELTA_MODULE, &reason);
  const ModuleHandle second = openModule(ZELTA_MODULE, &reason);
  ASSERT_TRUE(first != nullptr && second != nullptr) << reason;
  EXPECT_TRUE(closeModule(first));
  EXPECT_TRUE(test::isMapped(ZELTA_MODULE));
  EXPECT_TRUE(closeModule(second));
  EXPECT_FALSE(test::isMapped(ZELTA_MODULE));
}

TEST(ModuleLoaderTest, ModuleIsFoundByAnAddressInItAndStaysUntilThatHandleIsClosed) {
  std::string reason;
  const ModuleHandle module = openModule(ZELTA_MODULE, &reason);
  ASSERT_NE(module, nullptr) << reason;
  ScopedModule again(openModuleOf(moduleSymbol(module, "DllCanUnloadNow")));
  ASSERT_TRUE(again);
  EXPECT_TRUE(closeModule(module)) << reason;
  EXPECT_TRUE(test::isMapped(ZELTA_MODULE));
  again.reset();
  EXPECT_FALSE(test::isMapped(ZELTA_MODULE));
}

TEST(ModuleLoaderTest, NoModuleIsFoundByAnAddressInNone) {
  int local = 0;
  EXPECT_EQ(openModuleOf(&local), nullptr);
}

}  // namespace
}  // namespace zelta::platform
