// The handler's own numbers against the driver's. Nothing of pcscd's headers here: they define
// macros of the driver's names.
#include "pcsc/driver_io.h"

#include <gtest/gtest.h>

#include "driver/smartcard_ioctl.h"
#include "driver/status.h"

namespace zelta::pcsc {
namespace {

static_assert(kIoctlPower == IOCTL_SMARTCARD_POWER);
static_assert(kIoctlGetAttribute == IOCTL_SMARTCARD_GET_ATTRIBUTE);
static_assert(kIoctlSetAttribute == IOCTL_SMARTCARD_SET_ATTRIBUTE);
static_assert(kIoctlTransmit == IOCTL_SMARTCARD_TRANSMIT);
static_assert(kIoctlIsPresent == IOCTL_SMARTCARD_IS_PRESENT);
static_assert(kIoctlIsAbsent == IOCTL_SMARTCARD_IS_ABSENT);
static_assert(kIoctlSetProtocol == IOCTL_SMARTCARD_SET_PROTOCOL);
static_assert(kPowerDown == static_cast<std::uint32_t>(SCARD_POWER_DOWN));
static_assert(kColdReset == static_cast<std::uint32_t>(SCARD_COLD_RESET));
static_assert(kWarmReset == static_cast<std::uint32_t>(SCARD_WARM_RESET));
static_assert(kProtocolT0 == SCARD_PROTOCOL_T0);
static_assert(kProtocolT1 == SCARD_PROTOCOL_T1);
static_assert(kNoMedia == status::kNoMedia);
static_assert(kInvalidDeviceState == status::kInvalidDeviceState);
static_assert(pcsc::kNotSupported == status::kNotSupported);
static_assert(kAttributeVendorName == SCARD_ATTR_VENDOR_NAME);
static_assert(kAttributeIfdType == SCARD_ATTR_VENDOR_IFD_TYPE);
static_assert(kAttributePipeName == PIPE_NAME);
static_assert(kAttributeEventPipeName == EVENT_PIPE_NAME);
static_assert(kAttributeServerResult == SERVER_RESULT);
static_assert(kAttributeCurrentProtocol == SCARD_ATTR_CURRENT_PROTOCOL_TYPE);
static_assert(kAttributeAtr == SCARD_ATTR_ATR_STRING);
static_assert(pcsc::kTransmitHeaderSize == zelta::kTransmitHeaderSize);

TEST(DriverIoTest, NumbersTravelLowestByteFirst) {
  EXPECT_EQ(numberBytes(0x01020304), (Bytes{4, 3, 2, 1}));
  EXPECT_EQ(numberAt(Bytes{9, 4, 3, 2, 0xF1}, 1), 0xF1020304u);
}

}  // namespace
}  // namespace zelta::pcsc
