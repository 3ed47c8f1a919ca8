// Loading and unloading a driver module.
#include "tests/host/host_fixture.h"
#include "tests/support/process_state.h"

namespace zelta::host {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

// The system's error for a missing file.
#if defined(_WIN32)
constexpr char kNoSuchFile[] = "(126)";  // ERROR_MOD_NOT_FOUND
#else
constexpr char kNoSuchFile[] = "No such file";
#endif

std::string failureOf(const std::string& path) {
  try {
    DriverHost::load(path);
  } catch (const HostError& error) {
    return error.what();
  }
  return "no failure";
}

struct LoadFailure {
  const char* name;
  const char* module;
  const char* reason;
};

const LoadFailure kLoadFailures[] = {
    {"ModuleWithoutClassObject", FAKE_WITHOUT_CLASS,
     "is not a driver module: it does not export DllGetClassObject"},
    {"ModuleWithoutVersion", FAKE_WITHOUT_VERSION,
     "is not a driver module: it does not export Microsoft_WDF_UMDF_Version"},
    {"HigherMinorVersion", FAKE_NEWER_DRIVER,
     "was built for framework version 1.12; this host supports 1.0 to 1.11"},
    {"OtherMajorVersion", FAKE_OTHER_DRIVER,
     "was built for framework version 2.0; this host supports 1.0 to 1.11"},
};

class LoadFailureTest : public ::testing::TestWithParam<LoadFailure> {};

TEST_P(LoadFailureTest, IsToldAndTheModuleUnmapped) {
  EXPECT_THAT(failureOf(GetParam().module), HasSubstr(GetParam().reason));
  EXPECT_FALSE(test::isMapped(GetParam().module));
}

INSTANTIATE_TEST_SUITE_P(Modules, LoadFailureTest, ::testing::ValuesIn(kLoadFailures),
                         [](const auto& each) { return each.param.name; });

TEST(LoadTest, FileThatIsMissingOrNoModule_IsNamedWithTheSystemsReason) {
  EXPECT_THAT(
      failureOf("/nonexistent/driver.so"),
      AllOf(HasSubstr("'/nonexistent/driver.so' cannot be loaded: "), HasSubstr(kNoSuchFile)));
  const test::TempFolder folder;
  std::ofstream(folder.file("text.so")) << "not a module";
  EXPECT_THAT(failureOf(folder.file("text.so")), HasSubstr("cannot be loaded: "));
}

TEST(LoadTest, LowerMinorVersionIsSupported) {
  auto host = DriverHost::load(FAKE_OLD_DRIVER);
  host->bringUp();
  EXPECT_NE(host->open(L"dev0"), nullptr);
}

TEST(LoadTest, ModuleThatMayGoIsUnmapped) {
  auto host = DriverHost::load(FAKE_DRIVER);
  EXPECT_TRUE(test::isMapped(FAKE_DRIVER));
  EXPECT_TRUE(host->unload());
  EXPECT_FALSE(test::isMapped(FAKE_DRIVER));
  EXPECT_TRUE(host->unload());
}

TEST(LoadTest, ModuleThatMayNotGoStaysMapped) {
  {
    test::ScopedVariable fail(fake::kFailVariable, fake::kFailUnload);
    auto host = DriverHost::load(FAKE_STAYING_DRIVER);
    EXPECT_FALSE(host->unload());
    EXPECT_TRUE(test::isMapped(FAKE_STAYING_DRIVER));
    host.reset();
    EXPECT_TRUE(test::isMapped(FAKE_STAYING_DRIVER));
  }
  // The leftover reference keeps it loaded for good; the process can still use it.
  EXPECT_NE(DriverHost::load(FAKE_STAYING_DRIVER), nullptr);
}

TEST_F(HostTest, ModuleIsNotUnloadedWhileTheDeviceIsUp) {
  start();
  EXPECT_FALSE(host_->unload());
  EXPECT_EQ(control(fake::kEcho, {1, 2}).output, (std::vector<std::uint8_t>{1, 2}));
  host_->tearDown();
  EXPECT_TRUE(host_->unload());
}

TEST_F(HostTest, UnloadedModuleCannotBeBroughtUp) {
  ASSERT_TRUE(host_->unload());
  EXPECT_THROW(host_->bringUp(), HostError);
}

TEST_F(HostTest, DestructionTakesDownAndUnloads) {
  start();
  const auto waiting = submit(fake::kWait);
  host_.reset();
  EXPECT_TRUE(waiting->completed());
  EXPECT_EQ(trace().back(), "DllCanUnloadNow");
}

}  // namespace
}  // namespace zelta::host
