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

TEST_F(HostTest, DriverComesUpAgainAfterTearDown) {
  start();
  host_->tearDown();
  start();
  EXPECT_EQ(control(fake::kEcho, {7}).output, std::vector<std::uint8_t>{7});
  EXPECT_THAT(errors(), IsEmpty());
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

class BringUpFailureTest : public HostTest {
 protected:
  // What bring-up fails with when that thing goes wrong.
  std::string failureOf(const char* what) {
    test::ScopedVariable fail(fake::kFailVariable, what);
    try {
      host_->bringUp();
    } catch (const HostError& error) {
      return error.what();
    }
    return "no failure";
  }

  // Whatever failed, the host works once the reason is gone, and leaves no object behind.
  void TearDown() override {
    start();
    EXPECT_EQ(control(fake::kEcho, {9}).output, std::vector<std::uint8_t>{9});
    host_->tearDown();
    EXPECT_TRUE(host_->unload());
  }
};

TEST_F(BringUpFailureTest, UnknownClassIsTold) {
  EXPECT_THAT(failureOf(fake::kFailClass), HasSubstr("does not have the driver class"));
}

TEST_F(BringUpFailureTest, OtherClassObjectFailureIsToldWithItsCode) {
  EXPECT_THAT(failureOf(fake::kFailClassObject),
              ::testing::AllOf(HasSubstr("DllGetClassObject of '"),
                               HasSubstr("failed with code 0x8007001F")));
}

TEST_F(BringUpFailureTest, CreateInstanceFailureIsToldWithItsCode) {
  EXPECT_THAT(failureOf(fake::kFailCreateInstance),
              HasSubstr("CreateInstance of the driver object failed with code 0x8007001F"));
}

TEST_F(BringUpFailureTest, InitializeFailureReleasesTheDriver) {
  EXPECT_THAT(failureOf(fake::kFailInitialize),
              HasSubstr("OnInitialize of the driver failed with code 0x8007001F"));
  EXPECT_THAT(trace(), ElementsAre("OnInitialize", "driver destroyed"));
}

TEST_F(BringUpFailureTest, DeviceAddFailureDeinitializes) {
  EXPECT_THAT(failureOf(fake::kFailDeviceAdd),
              HasSubstr("OnDeviceAdd of the driver failed with code 0x8007001F"));
  EXPECT_THAT(trace(),
              ElementsAre("OnInitialize", "OnDeviceAdd", "OnDeinitialize", "driver destroyed"));
}

TEST_F(BringUpFailureTest, DriverWithoutDeviceIsRefused) {
  EXPECT_THAT(failureOf(fake::kFailNoDevice), HasSubstr("created no device"));
}

TEST_F(BringUpFailureTest, LockingConstraintIsNotImplemented) {
  EXPECT_THAT(failureOf(fake::kFailConstraint),
              HasSubstr("OnDeviceAdd of the driver failed with code 0x80004001"));
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("CreateDevice with a locking constraint")));
}

TEST_F(BringUpFailureTest, PrepareFailureStillReleasesTheHardware) {
  EXPECT_THAT(failureOf(fake::kFailPrepare),
              HasSubstr("OnPrepareHardware of the driver failed with code 0x8007001F"));
  EXPECT_THAT(trace(),
              ElementsAre("OnInitialize", "OnDeviceAdd", "OnPrepareHardware", "OnReleaseHardware",
                          "OnDeinitialize", "device destroyed", "driver destroyed"));
}

TEST_F(BringUpFailureTest, D0EntryFailureIsNotFollowedByD0Exit) {
  EXPECT_THAT(failureOf(fake::kFailD0Entry),
              HasSubstr("OnD0Entry of the driver failed with code 0x8007001F"));
  EXPECT_THAT(trace(), ElementsAre("OnInitialize", "OnDeviceAdd", "OnPrepareHardware", "OnD0Entry",
                                   "OnReleaseHardware", "OnDeinitialize", "device destroyed",
                                   "driver destroyed"));
}

TEST_F(HostTest, RequestsOfADeviceWithoutQueueAreRefused) {
  test::ScopedVariable fail(fake::kFailVariable, fake::kFailNoQueue);
  start();
  EXPECT_EQ(control(fake::kEcho).status, framework::hresult(0x80070001));
}

}  // namespace
}  // namespace zelta::host
