// The module, through its binary interface alone, against the framework's rules: each request is
// completed once, every reference given back, nothing touched after completion.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "contract/attributes.h"
#include "contract/io_controls.h"
#include "contract/reader_states.h"
#include "contract/wire.h"
#include "tests/doubles/framework/fake_framework.h"
#include "tests/module/module_world.h"
#include "tests/module/wire_bytes.h"

namespace zelta::test {
namespace {

class ContractTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(framework_.bringUp()); }

  void TearDown() override {
    framework_.takeDown();
    framework_.deinitialize();
    EXPECT_THAT(framework_.complaints(), ::testing::IsEmpty());
  }

  // The agent comes, with a card or without, and is let in: the driver asks it for the ATR.
  void connectAgent() {
    FakeWdfRequest& waiting = framework_.dispatch({IOCTL_SMARTCARD_IS_PRESENT, {}, {}});
    ASSERT_TRUE(agent_.connect());
    if (agent_.isCardIn()) {
      ASSERT_TRUE(waiting.waitCompleted(kLong));
    }
  }

  // The status of a request that is not to wait.
  Status statusOf(const RequestSetup& setup) {
    FakeWdfRequest& request = framework_.dispatch(setup);
    EXPECT_EQ(request.completions(), 1) << std::hex << setup.code;
    return request.status();
  }

  ModuleWorld world_;
  DriverExports exports_;
  FakeFramework framework_{exports_.driver()};
  CardAgent agent_;
};

TEST_F(ContractTest, EveryControlWithoutAnAgent_KeepsTheRules) {
  for (const std::uint32_t code :
       {IOCTL_SMARTCARD_GET_ATTRIBUTE, IOCTL_SMARTCARD_GET_STATE, IOCTL_SMARTCARD_IS_ABSENT,
        IOCTL_SMARTCARD_POWER, IOCTL_SMARTCARD_SET_ATTRIBUTE, IOCTL_SMARTCARD_SET_PROTOCOL,
        IOCTL_SMARTCARD_TRANSMIT, IOCTL_SMARTCARD_GET_LAST_ERROR, IOCTL_SMARTCARD_EJECT}) {
    statusOf({code, Bytes(12), 64});
    statusOf({code, {}, {}});
    statusOf({code, Bytes(), 0});
  }
}

TEST_F(ContractTest, EveryControlWithACard_KeepsTheRules) {
  agent_.setCardIn(CardAgent::atrOfT1());
  connectAgent();
  const RequestSetup setups[] = {
      {IOCTL_SMARTCARD_POWER, numberBytes(SCARD_COLD_RESET), 64},
      {IOCTL_SMARTCARD_SET_PROTOCOL, numberBytes(SCARD_PROTOCOL_T1), 4},
      {IOCTL_SMARTCARD_TRANSMIT, transmitBuffer(SCARD_PROTOCOL_T1, {1, 2, 3, 4}), 64},
      {IOCTL_SMARTCARD_GET_ATTRIBUTE, numberBytes(SCARD_ATTR_ATR_STRING), 64},
      {IOCTL_SMARTCARD_GET_ATTRIBUTE, numberBytes(PIPE_NAME), 128},
      {IOCTL_SMARTCARD_GET_STATE, {}, 4},
      {IOCTL_SMARTCARD_POWER, numberBytes(SCARD_POWER_DOWN), 64}};
  for (const RequestSetup& setup : setups) EXPECT_EQ(statusOf(setup), status::kSuccess);
}

TEST_F(ContractTest, WaitingRequests_AreCancelledByTheShutdown) {
  agent_.setCardIn(CardAgent::atrOfT1());
  connectAgent();
  FakeWdfRequest& removal = framework_.dispatch({IOCTL_SMARTCARD_IS_ABSENT, {}, {}});
  agent_.setCardOut();
  FakeWdfRequest& insertion = framework_.dispatch({IOCTL_SMARTCARD_IS_PRESENT, {}, {}});
  EXPECT_EQ(removal.completions() + insertion.completions(), 0);
  framework_.exitD0();
  EXPECT_EQ(removal.status(), status::kCancelled);
  EXPECT_EQ(insertion.status(), status::kCancelled);
  EXPECT_EQ(statusOf({IOCTL_SMARTCARD_GET_STATE, {}, 4}), status::kInvalidState);
}

}  // namespace
}  // namespace zelta::test
