// Bringing the driver up: the order of the callbacks, and each step that can fail.
#include "tests/host/host_fixture.h"

namespace zelta::host {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST_F(HostTest, DriverIsBroughtUpAndTakenDownInTheFrameworksOrder) {
  host_->bringUp();
  EXPECT_THAT(trace(),
              ElementsAre("OnInitialize", "OnDeviceAdd", "OnPrepareHardware", "OnD0Entry"));
  host_->tearDown();
  ASSERT_TRUE(host_->unload());
  EXPECT_THAT(trace(), ElementsAre("OnInitialize", "OnDeviceAdd", "OnPrepareHardware", "OnD0Entry",
                                   "OnD0Exit", "OnReleaseHardware", "OnDeinitialize",
                                   "device destroyed", "driver destroyed", "DllCanUnloadNow"));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(HostTest, SecondBringUpAndSecondTearDownDoNothing) {
  host_->bringUp();
  host_->bringUp();
  EXPECT_EQ(trace().size(), 4u);
  host_->tearDown();
  const std::size_t lines = trace().size();
  host_->tearDown();
  EXPECT_EQ(trace().size(), lines);
}

TEST_F(HostTest, EnabledInterfacesCanBeOpenedWhileTheDeviceIsUp) {
  EXPECT_THAT(host_->interfaces(), IsEmpty());
  EXPECT_EQ(host_->open(L"dev0"), nullptr);
  host_->bringUp();
  EXPECT_THAT(host_->interfaces(), ElementsAre(L"dev0"));
  EXPECT_NE(host_->open(L"dev0"), nullptr);
  EXPECT_EQ(host_->open(L"dev1"), nullptr);
  EXPECT_EQ(host_->open(L"hidden"), nullptr);
  host_->tearDown();
  EXPECT_THAT(host_->interfaces(), IsEmpty());
  EXPECT_EQ(host_->open(L"dev0"), nullptr);
}

struct BringUpFailure {
  const char* name;
  const char* what;  // fails
  const char* text;
  std::vector<std::string> trace;
  const char* error = nullptr;  // of the driver's, if any
};

const BringUpFailure kBringUpFailures[] = {
    {"UnknownClass", fake::kFailClass, "does not have the driver class", {}},
    {"ClassObject",
     fake::kFailClassObject,
     "DllGetClassObject of '" FAKE_DRIVER "' failed with code 0x8007001F",
     {}},
    {"CreateInstance",
     fake::kFailCreateInstance,
     "CreateInstance of the driver object failed with code 0x8007001F",
     {}},
    {"OnInitialize",
     fake::kFailInitialize,
     "OnInitialize of the driver failed with code 0x8007001F",
     {"OnInitialize", "driver destroyed"}},
    {"OnDeviceAdd",
     fake::kFailDeviceAdd,
     "OnDeviceAdd of the driver failed with code 0x8007001F",
     {"OnInitialize", "OnDeviceAdd", "OnDeinitialize", "driver destroyed"}},
    {"DriverWithoutDevice",
     fake::kFailNoDevice,
     "created no device",
     {"OnInitialize", "OnDeviceAdd", "OnDeinitialize", "driver destroyed"}},
    {"LockingConstraint",
     fake::kFailConstraint,
     "OnDeviceAdd of the driver failed with code 0x80004001",
     {"OnInitialize", "OnDeviceAdd", "OnDeinitialize", "device destroyed", "driver destroyed"},
     "CreateDevice with a locking constraint"},
    {"OnPrepareHardware",
     fake::kFailPrepare,
     "OnPrepareHardware of the driver failed with code 0x8007001F",
     {"OnInitialize", "OnDeviceAdd", "OnPrepareHardware", "OnReleaseHardware", "OnDeinitialize",
      "device destroyed", "driver destroyed"}},
    {"OnD0Entry",
     fake::kFailD0Entry,
     "OnD0Entry of the driver failed with code 0x8007001F",
     {"OnInitialize", "OnDeviceAdd", "OnPrepareHardware", "OnD0Entry", "OnReleaseHardware",
      "OnDeinitialize", "device destroyed", "driver destroyed"}},
};

class BringUpFailureTest : public HostTest, public ::testing::WithParamInterface<BringUpFailure> {};

TEST_P(BringUpFailureTest, IsToldTakenBackAndTheHostWorksOnceItsReasonIsGone) {
  {
    const test::ScopedVariable fail(fake::kFailVariable, GetParam().what);
    try {
      host_->bringUp();
      ADD_FAILURE() << "no failure";
    } catch (const HostError& error) {
      EXPECT_THAT(error.what(), HasSubstr(GetParam().text));
    }
  }
  EXPECT_EQ(trace(), GetParam().trace);
  if (GetParam().error != nullptr) {
    EXPECT_THAT(errors(), ElementsAre(HasSubstr(GetParam().error)));
  }
  start();
  EXPECT_EQ(control(fake::kEcho, {9}).output, std::vector<std::uint8_t>{9});
  host_->tearDown();
  EXPECT_TRUE(host_->unload());
}

INSTANTIATE_TEST_SUITE_P(Steps, BringUpFailureTest, ::testing::ValuesIn(kBringUpFailures),
                         [](const auto& each) { return each.param.name; });

TEST_F(HostTest, RequestsOfADeviceWithoutQueueAreRefused) {
  test::ScopedVariable fail(fake::kFailVariable, fake::kFailNoQueue);
  start();
  EXPECT_EQ(control(fake::kEcho).status, framework::hresult(0x80070001));
}

}  // namespace
}  // namespace zelta::host
