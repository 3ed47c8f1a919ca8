// For the test programs that look for leaks in the module. It keeps a few hundred bytes,
// deliberately never freed, which a leak checker finds again only while the module is mapped; so
// under one the module stays. Elsewhere it is loaded and unloaded with each test.
#include <gtest/gtest.h>

#include <memory>

#include "platform/process/module_loader.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LEAKS_ARE_CHECKED 1
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define LEAKS_ARE_CHECKED 1
#endif

#if defined(LEAKS_ARE_CHECKED)

namespace zelta::test {
namespace {

class PinnedModule final : public ::testing::Environment {
 public:
  void SetUp() override {
    std::string reason;
    ASSERT_NE(platform::openModule(ZELTA_VSC_MODULE, &reason), nullptr) << reason;
  }
};

// The framework of the tests owns it.
[[maybe_unused]] ::testing::Environment* const pinned =
    ::testing::AddGlobalTestEnvironment(std::make_unique<PinnedModule>().release());

}  // namespace
}  // namespace zelta::test

#endif
