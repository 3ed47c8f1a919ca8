// Memory that runs out, at every possible point, in the functions that pcscd calls: each gives a
// code, and the same call works again.
#include <algorithm>
#include <array>
#include <functional>

#include "contract/attributes.h"
#include "contract/bytes.h"
#include "contract/reader_states.h"
#include "tests/pcsc/handler_fixture.h"
#include "tests/support/scarce_memory.h"

namespace zelta::test {
namespace {

constexpr int kManyAllocations = 500;       // more than any of the calls makes
constexpr RESPONSECODE kForeignAnswer = 1;  // no code of the handler's

class HandlerMemoryTest : public HandlerFixture {
 protected:
  void SetUp() override {
    openWithCard();
    powerUp();
  }
  void TearDown() override { EXPECT_EQ(handler_->close(kLun), IFD_SUCCESS); }

  void powerUp() {
    Bytes atr;
    ASSERT_EQ(power(IFD_POWER_UP, &atr), IFD_SUCCESS);
  }
  // After an exchange with the agent that broke off in its middle.
  void reconnect() {
    agent_.die();
    waitForPresence(IFD_ICC_NOT_PRESENT);
    ASSERT_TRUE(agent_.connect());
    waitForPresence(IFD_SUCCESS);
    powerUp();
  }

  // Calls with 0, 1, 2 ... allocations until they suffice. `failure`: the code where the call got
  // as far as the driver's host, which found no memory; the driver itself may find none in the
  // middle of an exchange, which counts as a card that is gone.
  void withEveryShortage(const std::function<RESPONSECODE()>& call,
                         RESPONSECODE failure = IFD_COMMUNICATION_ERROR) {
    bool ranOut = true;
    for (int allocations = 0; ranOut; ++allocations) {
      ASSERT_LT(allocations, kManyAllocations) << "never enough memory";
      RESPONSECODE code = IFD_SUCCESS;
      {
        const ScarceMemory memory(allocations);
        code = call();
        ranOut = memory.ranOut();
      }
      // A shortage that only kept a further thread from being made is none for the call.
      const bool broken = code == IFD_ICC_NOT_PRESENT;
      EXPECT_TRUE(code == IFD_SUCCESS ||
                  (ranOut && (code == IFD_COMMUNICATION_ERROR || code == failure || broken)))
          << code << " with " << allocations;
      if (broken) {
        ASSERT_NO_FATAL_FAILURE(reconnect());
      }
      EXPECT_TRUE(allocations > 0 || ranOut) << "the call allocates nothing";
      EXPECT_EQ(call(), IFD_SUCCESS) << allocations;
    }
  }

  // Of the test's own, made before memory is scarce.
  std::array<UCHAR, 512> buffer_{};
  DWORD length_ = 0;
};

TEST_F(HandlerMemoryTest, Command) {
  UCHAR command[] = {0, 1, 2, 0};
  withEveryShortage([&] {
    ++command[3];  // an answer to an earlier one would show
    length_ = buffer_.size();
    const RESPONSECODE code =
        handler_->transmit(kLun, {1, 16}, command, 4, buffer_.data(), &length_, nullptr);
    const bool own = length_ == 6 && std::equal(command, command + 4, buffer_.begin());
    return code == IFD_SUCCESS && !own ? kForeignAnswer : code;
  });
}

TEST_F(HandlerMemoryTest, Attribute) {
  withEveryShortage([&] {
    length_ = buffer_.size();
    return handler_->getCapabilities(kLun, SCARD_ATTR_VENDOR_NAME, &length_, buffer_.data());
  });
}

TEST_F(HandlerMemoryTest, SettingAnAttribute) {
  withEveryShortage(
      [&] { return handler_->setCapabilities(kLun, SCARD_ATTR_DEVICE_IN_USE, 4, buffer_.data()); },
      IFD_ERROR_SET_FAILURE);
}

TEST_F(HandlerMemoryTest, Protocol) {
  withEveryShortage([&] { return handler_->setProtocol(kLun, SCARD_PROTOCOL_T1, 0, 0, 0, 0); });
}

TEST_F(HandlerMemoryTest, Control) {
  withEveryShortage([&] {
    return handler_->control(kLun, CM_IOCTL_GET_FEATURE_REQUEST, nullptr, 0, buffer_.data(),
                             buffer_.size(), &length_);
  });
}

}  // namespace
}  // namespace zelta::test
